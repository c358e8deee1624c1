#include "ntposix/Link.h"

#include "ntposix/NtName.h"

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

} // namespace

NTSTATUS FindLink(const OpenFile &open, Link *link)
{
    if (!open.object->HasName(open))
        return STATUS_FILE_DELETED;
    const std::string stored = open.object->PathOf(open);
    if (IsRoot(stored))
        return STATUS_CANNOT_DELETE;
    if (LeadsTo(stored, open.object->key, link)) {
        // Of several links the kernel knows which one was opened, also when a directory above was renamed and
        // another one has its name.
        Link opened;
        if (link->facts.links > 1) {
            const std::string current = PathByKernel(open.fd.Get());
            if (current != stored && !current.empty() && current[0] == '/' &&
                LeadsTo(current, open.object->key, &opened))
                *link = std::move(opened);
        }
        return STATUS_SUCCESS;
    }
    const std::string current = PathByKernel(open.fd.Get());
    if (IsRoot(current))
        return STATUS_CANNOT_DELETE;
    if (!current.empty() && current[0] == '/' && LeadsTo(current, open.object->key, link))
        return STATUS_SUCCESS;
    return STATUS_FILE_DELETED;
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
