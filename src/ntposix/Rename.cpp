#include "ntposix/Rename.h"

#include "lib/unicode/NameMapping.h"
#include "ntposix/ChangeMonitor.h"
#include "ntposix/DirectoryIndex.h"
#include "ntposix/FileObject.h"
#include "ntposix/Lookup.h"
#include "ntposix/NameSteps.h"
#include "ntposix/NtCall.h"
#include "ntposix/ShareRoots.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <utility>

namespace fodr::ntposix {

using namespace nt;

namespace {

constexpr int kAttempts = 16;

// Something changed under the attempt: try again. Callers never see this status.
constexpr NTSTATUS kRaced = STATUS_PENDING;

NTSTATUS StatusOfStep(int error)
{
    if (error == ENOENT || error == ESTALE)
        return kRaced;
    return error == 0 ? STATUS_SUCCESS : StatusOfErrno(error);
}

struct Target {
    int directory;
    const std::string &leaf;
    std::string path; // of both
};

// One attempt at a rename whose two directories are open.
class Renaming {
public:
    Renaming(OpenFile &openFile, const Link &sourceLink, const Target &renameTarget, RenameRule renameRule)
        : open(openFile), link(sourceLink), source{sourceLink.directory.Get(), sourceLink.leaf},
          target{renameTarget.directory, renameTarget.leaf}, targetPath(renameTarget.path), rule(renameRule)
    {}

    // On success tells whether the file's name is another one now.
    NTSTATUS Run(bool *moved)
    {
        *moved = true;
        // Where case is ignored nobody creates another case of the name meanwhile.
        std::optional<DirectoryLease> lease;
        std::optional<std::string> present;
        if (!open.exactName) {
            lease.emplace(target.directory);
            if (lease->Error() != 0)
                return StatusOfErrno(lease->Error());
            present = lease->Find(target.leaf);
        }
        const std::string &occupied = present ? *present : target.leaf;
        FileMetadata facts;
        const int error = StatAt(target.directory, occupied.c_str(), Links::kDontFollow, &facts);
        if (error == ENOENT)
            return IntoFreeName();
        if (error != 0)
            return StatusOfErrno(error);
        const bool sameFile = facts.key == open.object->key;
        // With one link it is the same name also where the file system ignores case.
        if (sameFile && (occupied == source.leaf || facts.links == 1) && SameDirectory())
            return occupied == target.leaf ? STATUS_SUCCESS : StatusOfStep(ChangeSpelling(source, target));
        if (!rule.replace)
            return STATUS_OBJECT_NAME_COLLISION;
        if (rule.posix) {
            *moved = !sameFile;
            return sameFile ? STATUS_SUCCESS : ReplaceAsPosix(occupied, facts);
        }
        if (!sameFile && occupied != target.leaf && open.root &&
            open.root->Rules().names == CaseRule::AnyCaseNoMerge)
            return STATUS_OBJECT_NAME_COLLISION;
        return sameFile ? MergeLinks(occupied) : Replace(occupied, facts);
    }

private:
    bool SameDirectory() const
    {
        FileMetadata from;
        FileMetadata to;
        return StatDescriptor(source.directory, &from) == 0 && StatDescriptor(target.directory, &to) == 0 &&
               from.key == to.key;
    }

    // Others may have taken it by now.
    NTSTATUS IntoFreeName() const
    {
        const int error = MoveToFreeName(source, target);
        return error == EEXIST && rule.replace ? kRaced : StatusOfStep(error);
    }

    // The target is another link of the same file, for which rename(2) would do nothing.
    NTSTATUS MergeLinks(const std::string &occupied) const
    {
        const int error = RemoveName(source, link.facts);
        if (error != 0 || occupied == target.leaf)
            return StatusOfStep(error);
        return StatusOfStep(ChangeSpelling({target.directory, occupied}, target));
    }

    NTSTATUS Replace(const std::string &occupied, const FileMetadata &facts) const
    {
        if (facts.kind == FileKind::kDirectory || open.IsDirectory() || IsProtected(facts))
            return STATUS_ACCESS_DENIED;
        const FileObjectRef object(FileObjectTable::Instance().Find(facts.key));
        if (object && object->IsOpen())
            return STATUS_ACCESS_DENIED;
        if (const int error = MoveOver(source, {target.directory, occupied}); error != 0)
            return StatusOfStep(error);
        if (occupied != target.leaf)
            return StatusOfStep(ChangeSpelling({target.directory, occupied}, target));
        return STATUS_SUCCESS;
    }

    NTSTATUS ReplaceAsPosix(const std::string &occupied, const FileMetadata &facts) const
    {
        if (occupied != target.leaf)
            return STATUS_OBJECT_NAME_COLLISION;
        const bool directory = facts.kind == FileKind::kDirectory;
        if (directory != open.IsDirectory())
            return directory ? STATUS_FILE_IS_A_DIRECTORY : STATUS_NOT_A_DIRECTORY;
        if (IsProtected(facts))
            return STATUS_ACCESS_DENIED;
        const int error = MoveOver(source, target);
        if (error == EISDIR || error == ENOTDIR)
            return kRaced;
        if (error == EEXIST || error == ENOTEMPTY)
            return STATUS_DIRECTORY_NOT_EMPTY;
        if (error != 0)
            return StatusOfStep(error);
        if (const FileObjectRef object{FileObjectTable::Instance().Find(facts.key)})
            object->NameTaken(targetPath, facts.links);
        if (directory)
            NotifyDeletePending(facts.key.device, facts.key.inode);
        return STATUS_SUCCESS;
    }

    bool IsProtected(const FileMetadata &facts) const
    {
        return !rule.ignoreReadOnly && (facts.attributes & FILE_ATTRIBUTE_READONLY) != 0;
    }

    const OpenFile &open;
    const Link &link;
    const Spot source;
    const Spot target;
    const std::string &targetPath;
    const RenameRule rule;
};

// The name that is to go.
NTSTATUS FindSource(OpenFile &open, Link *link)
{
    const NTSTATUS status = FindLink(open, link);
    if (status != STATUS_SUCCESS)
        return status == STATUS_CANNOT_DELETE ? STATUS_ACCESS_DENIED : status;
    return open.object->IsDeletePending(open) ? STATUS_DELETE_PENDING : STATUS_SUCCESS;
}

// Where others are quicker the name is looked for again.
NTSTATUS RenameTo(OpenFile &open, Link link, const Target &target, RenameRule rule)
{
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        bool moved;
        NTSTATUS status = Renaming(open, link, target, rule).Run(&moved);
        if (status == STATUS_SUCCESS && moved)
            open.object->Renamed(open, target.path);
        if (status != kRaced)
            return status;
        link = Link();
        status = FindSource(open, &link);
        if (status != STATUS_SUCCESS)
            return status;
    }
    return STATUS_OBJECT_PATH_NOT_FOUND; // the target's directory is gone
}

// The file's own name, and the one that it is to get.
NTSTATUS FindBoth(OpenFile &open, OpenFile &directory, std::u16string_view leaf, Link *link,
                  std::string *name)
{
    if (!PosixNameFromNt(leaf, *name) || name->empty() || *name == "." || *name == "..")
        return STATUS_OBJECT_NAME_INVALID;
    if (IsRootOfShare(open))
        return STATUS_ACCESS_DENIED;
    if (IsMovedOut(directory))
        return STATUS_OBJECT_PATH_NOT_FOUND;
    return FindSource(open, link);
}

// The name as it is there, which may differ in case where the open's needn't be exact. While the lease lives
// nobody makes another case of it.
int LookInCase(const OpenFile &open, int directory, std::optional<DirectoryLease> *lease, std::string *name)
{
    if (open.exactName)
        return 0;
    lease->emplace(directory);
    if ((*lease)->Error() != 0)
        return (*lease)->Error();
    if (std::optional<std::string> present = (*lease)->Find(*name))
        *name = std::move(*present);
    return 0;
}

NTSTATUS FindBothInCase(OpenFile &open, OpenFile &directory, std::u16string_view leaf, Link *link,
                        std::string *name, std::optional<DirectoryLease> *lease)
{
    const NTSTATUS status = FindBoth(open, directory, leaf, link, name);
    if (status != STATUS_SUCCESS)
        return status;
    const int error = LookInCase(open, directory.fd.Get(), lease, name);
    return error == 0 ? STATUS_SUCCESS : StatusOfErrno(error);
}

NTSTATUS StatusOfLink(int error, const OpenFile &open)
{
    if (error == ENOENT)
        return IsRemoved(open.fd.Get()) ? STATUS_FILE_DELETED : STATUS_OBJECT_PATH_NOT_FOUND;
    if (error == EPERM) // a file system without links, or a file that isn't to be linked
        return STATUS_PRIVILEGE_NOT_HELD;
    return error == 0 ? STATUS_SUCCESS : StatusOfErrno(error);
}

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
    if (parts.leaf.empty() || (name.Root() && name.Below().empty()))
        return STATUS_ACCESS_DENIED;
    Link link;
    status = FindSource(open, &link);
    if (status != STATUS_SUCCESS)
        return status;
    Fd directory;
    std::string directoryPath;
    status = OpenParent(name, open.exactName, &directory, &directoryPath);
    if (status != STATUS_SUCCESS)
        return status;
    const Target to{directory.Get(), parts.leaf, JoinPath(directoryPath, parts.leaf)};
    return RenameTo(open, std::move(link), to, {.replace = replace});
}

NTSTATUS RenameInto(OpenFile &open, OpenFile &directory, std::u16string_view leaf, RenameRule rule)
{
    Link link;
    std::string name;
    const NTSTATUS status = FindBoth(open, directory, leaf, &link, &name);
    const Target to{directory.fd.Get(), name, JoinPath(directory.object->PathOf(directory), name)};
    return status == STATUS_SUCCESS ? RenameTo(open, std::move(link), to, rule) : status;
}

// What is open gets the name, whatever has its own by then.
NTSTATUS LinkInto(OpenFile &open, OpenFile &directory, std::u16string_view leaf)
{
    if (open.IsDirectory())
        return STATUS_FILE_IS_A_DIRECTORY;
    Link link;
    std::string name;
    std::optional<DirectoryLease> lease;
    if (const NTSTATUS status = FindBothInCase(open, directory, leaf, &link, &name, &lease);
        status != STATUS_SUCCESS)
        return status;
    open.object->NoteLinks();
    const bool linked = linkat(AT_FDCWD, DescriptorPath(open.fd.Get()).c_str(), directory.fd.Get(),
                               name.c_str(), AT_SYMLINK_FOLLOW) == 0;
    return StatusOfLink(linked ? 0 : errno, open);
}

NTSTATUS ExchangeWith(OpenFile &open, OpenFile &directory, std::u16string_view leaf)
{
    Link link;
    std::string name;
    std::optional<DirectoryLease> lease;
    if (const NTSTATUS status = FindBothInCase(open, directory, leaf, &link, &name, &lease);
        status != STATUS_SUCCESS)
        return status;
    FileMetadata other;
    if (const int error = StatAt(directory.fd.Get(), name.c_str(), Links::kDontFollow, &other); error != 0)
        return StatusOfErrno(error);
    if (other.key == open.object->key) // two of its own names
        return STATUS_SUCCESS;
    if (renameat2(link.directory.Get(), link.leaf.c_str(), directory.fd.Get(), name.c_str(),
                  RENAME_EXCHANGE) != 0)
        return StatusOfErrno(errno);
    const std::string path = JoinPath(directory.object->PathOf(directory), name);
    open.object->Renamed(open, path);
    if (const FileObjectRef object{FileObjectTable::Instance().Find(other.key)})
        object->Renamed(path, link.path);
    return STATUS_SUCCESS;
}

} // namespace fodr::ntposix
