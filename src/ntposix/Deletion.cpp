#include "ntposix/Deletion.h"

#include "ntposix/ChangeMonitor.h"
#include "ntposix/Lookup.h"
#include "ntposix/NameSteps.h"
#include "ntposix/NamedStream.h"
#include "ntposix/NtCall.h"

#include <dirent.h>
#include <fcntl.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <string_view>

namespace fodr::ntposix {

using namespace nt;

namespace {

constexpr int kAttempts = 16;

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

// Takes away the name of the file, wherever it is by now. A name that others give to another file in between
// is left alone and the file looked for again.
NTSTATUS RemoveLink(const OpenFile &open, Link *link)
{
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const NTSTATUS status = FindLink(open, link);
        if (status != STATUS_SUCCESS)
            return status;
        const int error = RemoveName({link->directory.Get(), link->leaf}, link->facts);
        if (error == 0) {
            ++deletions;
            return STATUS_SUCCESS;
        }
        if (open.IsDirectory() && (error == EEXIST || error == ENOTEMPTY))
            return STATUS_DIRECTORY_NOT_EMPTY;
        if (error != ESTALE && error != ENOENT && error != ENOTDIR)
            return StatusOfErrno(error);
    }
    return STATUS_SHARING_VIOLATION;
}

// A failure isn't reported: the handle is closed, as under NT.
void Delete(const OpenFile &open)
{
    if (open.stream) {
        [[maybe_unused]] const int error = open.stream->Remove(open.File().fd.Get());
        return;
    }
    Link link;
    [[maybe_unused]] const NTSTATUS status = RemoveLink(open, &link);
}

// What keeps it from being deleted whatever else is known of it.
NTSTATUS CheckAttributes(const OpenFile &open, ReadOnlyFiles readOnly, FileMetadata *facts)
{
    if (const int error = open.Stat(facts); error != 0)
        return StatusOfErrno(error);
    const bool attribute = open.stream && open.stream->IsAttribute();
    if (facts->attributes & FILE_ATTRIBUTE_READONLY && readOnly == ReadOnlyFiles::kStay && !attribute)
        return STATUS_CANNOT_DELETE;
    if (open.stream && !MayWrite(open.File().fd.Get())) // goes with its file's permission to be written to
        return STATUS_ACCESS_DENIED;
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS CheckDeletable(const OpenFile &open, ReadOnlyFiles readOnly)
{
    FileMetadata facts;
    NTSTATUS status = CheckAttributes(open, readOnly, &facts);
    if (status != STATUS_SUCCESS || open.stream)
        return status;
    Link link;
    status = FindLink(open, &link);
    if (status != STATUS_SUCCESS)
        return status;
    if (open.IsDirectory() && !IsEmptyDirectory(open.fd.Get()))
        return STATUS_DIRECTORY_NOT_EMPTY;
    return CheckDirectoryWritable(link.directory.Get(), open.fd.Get());
}

NTSTATUS SetDisposition(OpenFile &open, bool deleteFile, ReadOnlyFiles readOnly)
{
    if (deleteFile) {
        const NTSTATUS status = CheckDeletable(open, readOnly);
        if (status == STATUS_FILE_DELETED)
            return STATUS_SUCCESS; // somebody else did what is asked for
        if (status != STATUS_SUCCESS)
            return status;
    }
    FileMetadata facts;
    if (const int error = StatDescriptor(open.fd.Get(), &facts); error != 0)
        return StatusOfErrno(error);
    open.object->SetDeletePending(open, deleteFile, facts.links);
    if (deleteFile && open.IsDirectory())
        NotifyDeletePending(open.object->key.device, open.object->key.inode);
    return STATUS_SUCCESS;
}

NTSTATUS SetDeleteOnClose(OpenFile &open, bool deleteFile, ReadOnlyFiles readOnly)
{
    const NTSTATUS status = deleteFile ? CheckDeletable(open, readOnly) : STATUS_SUCCESS;
    // As with a create's option: the directory may be emptied until then.
    if (status != STATUS_SUCCESS && status != STATUS_DIRECTORY_NOT_EMPTY)
        return status;
    open.object->SetDeleteOnClose(open, deleteFile);
    return STATUS_SUCCESS;
}

NTSTATUS DeleteNow(OpenFile &open, ReadOnlyFiles readOnly)
{
    if (!open.stream && IsRootOfShare(open))
        return STATUS_CANNOT_DELETE;
    FileMetadata facts;
    NTSTATUS status = CheckAttributes(open, readOnly, &facts);
    if (status != STATUS_SUCCESS)
        return status;
    if (open.stream) {
        const int error = open.stream->Remove(open.File().fd.Get());
        return error == 0 ? STATUS_SUCCESS : StatusOfErrno(error);
    }
    Link link;
    status = RemoveLink(open, &link);
    if (status != STATUS_SUCCESS)
        return status;
    open.object->NameTaken(open, link.path, facts.links);
    if (open.IsDirectory())
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
    open.object->advisoryLocks.ReleaseAll(&open);
    if (open.object->Close(open)) {
        Delete(open);
        open.object->Leave(open);
    }
    if (open.base)
        Cleanup(*open.base);
}

} // namespace fodr::ntposix
