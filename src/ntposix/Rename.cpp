#include "ntposix/Rename.h"

#include "ntposix/DirectoryIndexes.h"
#include "ntposix/ErrnoStatus.h"
#include "ntposix/FileObjectTable.h"
#include "ntposix/Link.h"
#include "ntposix/Lookup.h"

#include <fcntl.h>
#include <stdio.h>

#include <cerrno>
#include <optional>

namespace fodr::ntposix {

using namespace nt;

namespace {

struct Spot {
    int directory;
    const std::string &leaf;
};

// 0 or an errno; EEXIST when something is there. File systems that can't rename under that condition are
// asked first.
int RenameToFreeName(Spot from, Spot to)
{
    if (renameat2(from.directory, from.leaf.c_str(), to.directory, to.leaf.c_str(), RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS)
        return errno;
    FileFacts facts;
    const int error = StatAt(to.directory, to.leaf.c_str(), Links::kDontFollow, &facts);
    if (error != ENOENT)
        return error == 0 ? EEXIST : error;
    return renameat(from.directory, from.leaf.c_str(), to.directory, to.leaf.c_str()) == 0 ? 0 : errno;
}

// Another case of the file's own name. A file system that ignores case itself takes the new spelling for
// something that is there.
int ChangeSpelling(Spot from, Spot to)
{
    const int error = RenameToFreeName(from, to);
    if (error != EEXIST)
        return error;
    return renameat(from.directory, from.leaf.c_str(), to.directory, to.leaf.c_str()) == 0 ? 0 : errno;
}

NTSTATUS CheckReplaceable(const OpenFile &open, const FileFacts &present)
{
    if (present.kind == FileKind::kDirectory || open.IsDirectory() ||
        present.attributes & FILE_ATTRIBUTE_READONLY)
        return STATUS_ACCESS_DENIED;
    const FileObjectRef object(FileObjectTable::Instance().Find(present.key));
    return object && !object->MayBeReplaced() ? STATUS_ACCESS_DENIED : STATUS_SUCCESS;
}

// One rename whose two directories are open.
class Renaming {
public:
    Renaming(OpenFile &openFile, const Link &sourceLink, int targetDirectory, const std::string &targetLeaf)
        : open(openFile), source{sourceLink.directory.Get(), sourceLink.leaf}, target{targetDirectory,
                                                                                      targetLeaf}
    {}

    NTSTATUS Run(bool replace)
    {
        // Nobody creates another case of the name meanwhile.
        const DirectoryLease lease(target.directory);
        if (lease.Error() != 0)
            return StatusOfErrno(lease.Error());
        const std::optional<std::string> present = open.exactName ? std::nullopt : lease.Find(target.leaf);
        FileFacts facts;
        const std::string &occupied = present ? *present : target.leaf;
        const int error = StatAt(target.directory, occupied.c_str(), Links::kDontFollow, &facts);
        if (error == ENOENT)
            return StatusOfRename(RenameToFreeName(source, target));
        if (error != 0)
            return StatusOfErrno(error);
        const bool sameFile = facts.key == open.object->key;
        if (sameFile && occupied == source.leaf && SameDirectory())
            return occupied == target.leaf ? STATUS_SUCCESS : StatusOfRename(ChangeSpelling(source, target));
        if (!replace)
            return STATUS_OBJECT_NAME_COLLISION;
        return sameFile ? MergeLinks(occupied) : Replace(occupied, facts);
    }

private:
    bool SameDirectory() const
    {
        FileFacts from;
        FileFacts to;
        return StatDescriptor(source.directory, &from) == 0 && StatDescriptor(target.directory, &to) == 0 &&
               from.key == to.key;
    }

    // The target is another link of the same file: rename(2) would leave both.
    NTSTATUS MergeLinks(const std::string &occupied) const
    {
        if (unlinkat(target.directory, occupied.c_str(), 0) != 0)
            return StatusOfErrno(errno);
        return StatusOfRename(RenameToFreeName(source, target));
    }

    NTSTATUS Replace(const std::string &occupied, const FileFacts &facts) const
    {
        const NTSTATUS status = CheckReplaceable(open, facts);
        if (status != STATUS_SUCCESS)
            return status;
        if (renameat(source.directory, source.leaf.c_str(), target.directory, occupied.c_str()) != 0)
            return StatusOfRename(errno);
        if (occupied != target.leaf)
            return StatusOfRename(ChangeSpelling({target.directory, occupied}, target));
        return STATUS_SUCCESS;
    }

    static NTSTATUS StatusOfRename(int error) { return error == 0 ? STATUS_SUCCESS : StatusOfErrno(error); }

    const OpenFile &open;
    const Spot source;
    const Spot target;
};

} // namespace

NTSTATUS RenameFile(OpenFile &open, std::u16string_view target, bool replace)
{
    NtName name;
    NTSTATUS status = NtName::Parse(target, &name);
    if (status != STATUS_SUCCESS)
        return status;
    if (!name.Stream().empty() || (name.HasTrailingSeparator() && !open.IsDirectory()))
        return STATUS_OBJECT_NAME_INVALID;
    const PathParts parts = SplitPath(name.Path());
    if (parts.leaf.empty())
        return STATUS_ACCESS_DENIED;
    Link link;
    status = FindLink(open, &link);
    if (status != STATUS_SUCCESS)
        return status == STATUS_CANNOT_DELETE ? STATUS_ACCESS_DENIED : status;
    if (open.object->IsDeletePending(open))
        return STATUS_DELETE_PENDING;
    Fd directory;
    std::string directoryPath;
    status = OpenParent(name, open.exactName, &directory, &directoryPath);
    if (status != STATUS_SUCCESS)
        return status;
    status = Renaming(open, link, directory.Get(), parts.leaf).Run(replace);
    if (status == STATUS_SUCCESS)
        open.object->Renamed(open, JoinPath(directoryPath, parts.leaf));
    return status;
}

} // namespace fodr::ntposix
