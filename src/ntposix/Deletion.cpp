#include "ntposix/Deletion.h"

#include "ntposix/ErrnoStatus.h"
#include "ntposix/Link.h"
#include "ntposix/NamedStream.h"
#include "ntposix/Notify.h"

#include <dirent.h>
#include <fcntl.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <string_view>

namespace fodr::ntposix {

using namespace nt;

namespace {

std::atomic<uint64_t> deletions{0};

// A directory that can't be read is left for the deletion itself to judge.
bool IsEmptyDirectory(int directory)
{
    Fd readable(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, int (*)(DIR *)> listing(readable ? fdopendir(readable.Get()) : nullptr,
                                                       [](DIR *d) { return d ? closedir(d) : 0; });
    if (!listing)
        return true;
    readable.Release();
    while (const dirent *entry = readdir(listing.get())) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..")
            return false;
    }
    return true;
}

// Whether this process may take a name out of the directory. In a sticky one it must own either.
NTSTATUS CheckDirectoryWritable(int directory, int file)
{
    if (faccessat(directory, ".", W_OK | X_OK, AT_EACCESS) != 0)
        return StatusOfErrno(errno);
    struct stat parent;
    struct stat own;
    if (geteuid() == 0 || fstat(directory, &parent) != 0 || (parent.st_mode & S_ISVTX) == 0)
        return STATUS_SUCCESS;
    const bool owns = parent.st_uid == geteuid() || (fstat(file, &own) == 0 && own.st_uid == geteuid());
    return owns ? STATUS_SUCCESS : STATUS_ACCESS_DENIED;
}

// Nobody is told of a failure: the handle is closed, as under NT.
void Delete(const OpenFile &open)
{
    if (open.stream) {
        [[maybe_unused]] const int error = open.stream->Remove(open.File().fd.Get());
        return;
    }
    Link link;
    if (FindLink(open, &link) == STATUS_SUCCESS)
        unlinkat(link.directory.Get(), link.leaf.c_str(), open.IsDirectory() ? AT_REMOVEDIR : 0);
    ++deletions;
}

} // namespace

NTSTATUS CheckDeletable(const OpenFile &open)
{
    FileFacts facts;
    if (const int error = open.Stat(&facts); error != 0)
        return StatusOfErrno(error);
    if (facts.attributes & FILE_ATTRIBUTE_READONLY)
        return STATUS_CANNOT_DELETE;
    if (open.stream) // goes with its file's permission to be written to
        return MayWrite(open.File().fd.Get()) ? STATUS_SUCCESS : STATUS_ACCESS_DENIED;
    Link link;
    const NTSTATUS status = FindLink(open, &link);
    if (status != STATUS_SUCCESS)
        return status;
    if (open.IsDirectory() && !IsEmptyDirectory(open.fd.Get()))
        return STATUS_DIRECTORY_NOT_EMPTY;
    return CheckDirectoryWritable(link.directory.Get(), open.fd.Get());
}

NTSTATUS SetDisposition(OpenFile &open, bool deleteFile)
{
    if (deleteFile) {
        const NTSTATUS status = CheckDeletable(open);
        if (status == STATUS_FILE_DELETED)
            return STATUS_SUCCESS; // somebody else did what is asked for
        if (status != STATUS_SUCCESS)
            return status;
    }
    FileFacts facts;
    if (const int error = StatDescriptor(open.fd.Get(), &facts); error != 0)
        return StatusOfErrno(error);
    open.object->SetDeletePending(open, deleteFile, facts.links);
    if (deleteFile && open.IsDirectory())
        NotifyDeletePending(open.object->key.device, open.object->key.inode);
    return STATUS_SUCCESS;
}

uint64_t DeletionCount()
{
    return deletions.load();
}

void Cleanup(OpenFile &open)
{
    open.services.Close();
    open.object->locks.ReleaseAll(&open);
    if (open.object->Close(open)) {
        Delete(open);
        open.object->Leave(open);
    }
    if (open.base)
        Cleanup(*open.base);
}

} // namespace fodr::ntposix
