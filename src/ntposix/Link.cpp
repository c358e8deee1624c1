#include "ntposix/Link.h"

#include "ntposix/NtName.h"
#include "ntposix/ShareRoots.h"

#include <fcntl.h>

#include <climits>

namespace fodr::ntposix {

using namespace nt;

namespace {

bool LeadsTo(const std::string &path, const FileKey &key, Link *link)
{
    PathParts parts = SplitPath(path);
    link->directory.Reset(open(parts.parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!link->directory ||
        StatAt(link->directory.Get(), parts.leaf.c_str(), Links::kDontFollow, &link->facts) != 0 ||
        link->facts.key != key)
        return false;
    link->leaf = std::move(parts.leaf);
    link->path = path;
    return true;
}

bool IsRoot(const std::string &path)
{
    return path == "/";
}

bool StaysInShare(const OpenFile &open)
{
    return open.root && !open.root->IsWholeTree() && !open.root->Rules().linksOutside;
}

// What the kernel says may be no path at all.
bool IsInShare(const OpenFile &open, const std::string &path)
{
    if (path.empty() || path[0] != '/')
        return false;
    if (!StaysInShare(open))
        return true;
    const std::string above = PathByKernel(open.root->Folder());
    return !above.empty() && path.starts_with(above + "/");
}

} // namespace

NTSTATUS FindLink(const OpenFile &open, Link *link)
{
    if (!open.object->HasName(open))
        return STATUS_FILE_DELETED;
    const FileKey key = open.object->key;
    const std::string stored = open.object->PathOf(open);
    if (IsRoot(stored) || IsRootOfShare(open))
        return STATUS_CANNOT_DELETE;
    const bool found = LeadsTo(stored, key, link);
    if (found && link->facts.links == 1)
        return STATUS_SUCCESS;
    // Of several links the kernel knows which one was opened, also when a directory above was renamed and
    // another one has its name.
    const std::string current = PathByKernel(open.fd.Get());
    if (IsRoot(current))
        return STATUS_CANNOT_DELETE;
    Link elsewhere;
    if (current != stored && IsInShare(open, current) && LeadsTo(current, key, &elsewhere)) {
        *link = std::move(elsewhere);
        return STATUS_SUCCESS;
    }
    return found ? STATUS_SUCCESS : STATUS_FILE_DELETED;
}

bool IsMovedOut(const OpenFile &open)
{
    if (!StaysInShare(open) || IsRootOfShare(open))
        return false;
    const std::string path = PathByKernel(open.fd.Get());
    return path.starts_with('/') && !IsInShare(open, path);
}

bool IsRootOfShare(const OpenFile &open)
{
    return open.root && open.root->Key() == open.File().object->key;
}

std::string PathByKernel(int fd)
{
    char path[PATH_MAX];
    const ssize_t length = readlink(DescriptorPath(fd).c_str(), path, sizeof(path));
    return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string();
}

std::string DescriptorPath(int fd)
{
    return "/proc/self/fd/" + std::to_string(fd);
}

} // namespace fodr::ntposix
