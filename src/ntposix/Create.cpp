#include "ntposix/Create.h"

#include "ntposix/Creator.h"
#include "ntposix/Deletion.h"
#include "ntposix/FileMetadata.h"
#include "ntposix/FileObject.h"
#include "ntposix/FileRanges.h"
#include "ntposix/NameSteps.h"
#include "ntposix/NamedStream.h"
#include "ntposix/NtCall.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace fodr::ntposix {

using namespace nt;

namespace {

constexpr uint32_t kSynchronous = FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT;
constexpr uint32_t kValidOptions = 0x00FFFFFF;
constexpr uint32_t kValidAttributes = 0x00007FB7;
constexpr uint32_t kValidShare = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr uint32_t kCompleteIfOplocked = 0x100;
constexpr uint32_t kOpenForFreeSpaceQuery = 0x800000;
constexpr uint32_t kNoCompression = 0x8000;
// What may stand beside FILE_DIRECTORY_FILE.
constexpr uint32_t kDirectoryOptions = FILE_DIRECTORY_FILE | kSynchronous | FILE_WRITE_THROUGH |
                                       kCompleteIfOplocked | FILE_OPEN_FOR_BACKUP_INTENT |
                                       FILE_DELETE_ON_CLOSE | kOpenForFreeSpaceQuery | FILE_OPEN_BY_FILE_ID |
                                       kNoCompression | FILE_OPEN_REPARSE_POINT;

} // namespace

NTSTATUS CheckCreateParameters(const CreateRequest &request)
{
    const uint32_t options = request.options;
    const bool directory = (options & FILE_DIRECTORY_FILE) != 0;
    const uint32_t disposition = request.disposition;
    const bool improper =
        (request.attributes & ~kValidAttributes) != 0 || (request.share & ~kValidShare) != 0 ||
        disposition > FILE_OVERWRITE_IF || (options & ~kValidOptions) != 0 ||
        (options & kSynchronous) == kSynchronous ||
        ((options & kSynchronous) != 0 && (request.access & SYNCHRONIZE) == 0) ||
        ((options & FILE_DELETE_ON_CLOSE) != 0 && (request.access & DELETE_ACCESS) == 0) ||
        ((options & FILE_NO_INTERMEDIATE_BUFFERING) != 0 && (request.access & FILE_APPEND_DATA) != 0) ||
        (directory && (options & ~kDirectoryOptions) != 0) ||
        (directory && disposition != FILE_OPEN && disposition != FILE_CREATE && disposition != FILE_OPEN_IF);
    return improper || request.allocation < 0 ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS;
}

NTSTATUS FileCreator::Run(std::unique_ptr<OpenFile> *file)
{
    if (!name.Stream().empty() || request.options & FILE_OPEN_BY_FILE_ID)
        return request.options & FILE_OPEN_BY_FILE_ID ? STATUS_NOT_SUPPORTED : STATUS_OBJECT_NAME_INVALID;
    return RunAttempts(file);
}

NTSTATUS FileCreator::RunOnce()
{
    LookupResult located;
    place = &located;
    deletionsBefore = DeletionCount();
    // Whatever has the name is in the way of FILE_CREATE, a link as well.
    const bool itself =
        (request.options & FILE_OPEN_REPARSE_POINT) != 0 || request.disposition == FILE_CREATE;
    lookup = {.links = itself ? Links::kDontFollow : Links::kFollow,
              .keepLease = MayCreate(),
              .exact = request.exactName};
    if (OpenAtAGlance())
        return AdmitExisting();
    opened = std::make_unique<OpenFile>();
    const NTSTATUS status = Locate(name, lookup, place);
    if (status != STATUS_SUCCESS)
        return status;
    FillOpened();
    if (MeetsOtherCase()) {
        information = FILE_EXISTS;
        return STATUS_OBJECT_NAME_COLLISION;
    }
    return place->exists ? OpenExisting() : CreateMissing();
}

// Data of a file that is there, which is the usual case, takes two look-ups: one for what it is, since not
// everything may be opened, and one that opens it. What the first has seen counts once the second has opened
// that file; with anything else the long way begins anew.
bool FileCreator::OpenAtAGlance()
{
    const bool attributesOnly = IsAttributeOnly(request.access) && !IsOverwriting();
    if (attributesOnly || request.disposition == FILE_CREATE)
        return false;
    const int error = Glance(name, lookup, place);
    lookup.seemsMissing = error == ENOENT;
    if (error != 0)
        return false;
    opened = std::make_unique<OpenFile>();
    FillOpened();
    const bool isOpen = CheckKind() == STATUS_SUCCESS && CheckReadOnly() == STATUS_SUCCESS &&
                        OpenDescriptor() == STATUS_SUCCESS;
    raced = false;
    return isOpen;
}

void FileCreator::FillOpened()
{
    opened->access = request.access & ~MAXIMUM_ALLOWED;
    opened->share = request.share;
    opened->options = request.options;
    opened->exactName = place->exact;
    opened->root = place->root;
    opened->mode = request.options & kModeOptions;
}

// Whether what is there has the name in another case, and the share's rule keeps it from a create.
bool FileCreator::MeetsOtherCase() const
{
    return (place->exists || place->dangling) && MayCreate() && place->root &&
           place->root->Rules().names == CaseRule::AnyCaseNoMerge && !name.Below().empty() &&
           LeafOf(place->path) != LeafOf(name.Path());
}

NTSTATUS FileCreator::OpenExisting()
{
    if (request.disposition == FILE_CREATE) {
        const FileObjectRef object(FileObjectTable::Instance().Find(place->facts.key));
        information = FILE_EXISTS;
        return object && object->IsNamePending(place->path) ? STATUS_DELETE_PENDING
                                                            : STATUS_OBJECT_NAME_COLLISION;
    }
    NTSTATUS status = CheckKind();
    if (status == STATUS_SUCCESS)
        status = CheckReadOnly();
    if (status == STATUS_SUCCESS)
        status = OpenDescriptor();
    return status == STATUS_SUCCESS ? AdmitExisting() : status;
}

NTSTATUS FileCreator::AdmitExisting()
{
    NTSTATUS status = Admit(IsOverwriting() ? FILE_WRITE_DATA : 0);
    if (status != STATUS_SUCCESS)
        return status;
    information = FILE_OPENED;
    if (IsOverwriting())
        status = Overwrite();
    return status == STATUS_SUCCESS ? Finish() : status;
}

NTSTATUS FileCreator::CheckKind() const
{
    switch (place->facts.kind) {
    case FileKind::kDirectory:
        if (request.options & FILE_NON_DIRECTORY_FILE)
            return STATUS_FILE_IS_A_DIRECTORY;
        return IsOverwriting() ? STATUS_OBJECT_NAME_COLLISION : STATUS_SUCCESS;
    case FileKind::kSpecial:
        // Opening a FIFO or a device for data has effects on others, refusing it afterwards wouldn't undo
        // them.
        if (IsOverwriting() || (request.access & (FILE_READ_DATA | kWriteRights)) != 0)
            return STATUS_ACCESS_DENIED;
        break;
    case FileKind::kLink:
        // Whether it is one to a directory isn't asked: either option fits.
        return IsOverwriting() ? STATUS_ACCESS_DENIED : STATUS_SUCCESS;
    case FileKind::kFile:
        break;
    }
    if (request.options & FILE_DIRECTORY_FILE)
        return STATUS_NOT_A_DIRECTORY;
    return name.HasTrailingSeparator() ? STATUS_OBJECT_NAME_INVALID : STATUS_SUCCESS;
}

NTSTATUS FileCreator::CheckReadOnly() const
{
    if ((place->facts.attributes & FILE_ATTRIBUTE_READONLY) == 0)
        return STATUS_SUCCESS;
    if (request.options & FILE_DELETE_ON_CLOSE)
        return STATUS_CANNOT_DELETE;
    return WantsWriting() ? STATUS_ACCESS_DENIED : STATUS_SUCCESS;
}

// Opens what the lookup saw, with the data rights that are wanted or, for MAXIMUM_ALLOWED, with all that can
// be had. Nothing blocks: what became a FIFO since the lookup is opened without waiting, then noticed.
NTSTATUS FileCreator::OpenDescriptor()
{
    opened->kind = place->facts.kind;
    opened->path = place->path;
    opened->dotName = HiddenByName(LeafOf(place->path)) != 0;
    const bool hasData = opened->kind == FileKind::kFile || opened->kind == FileKind::kDirectory;
    const bool reads = hasData && (request.access & FILE_READ_DATA) != 0;
    const bool writes = opened->kind == FileKind::kFile && WantsWriting();
    int error = EACCES;
    if (request.access & MAXIMUM_ALLOWED && hasData) {
        const bool writable = (place->facts.attributes & FILE_ATTRIBUTE_READONLY) == 0;
        const bool isFile = opened->kind == FileKind::kFile;
        opened->access |= kAttributeRights;
        if (isFile && writable && (error = TryOpen(O_RDWR)) == 0)
            opened->access |= kReadRights | kWriteRights;
        if (error != 0 && !writes && (error = TryOpen(O_RDONLY)) == 0)
            opened->access |= isFile ? kReadRights : kReadRights | kWriteRights | FILE_DELETE_CHILD;
        if (error != 0 && !reads && isFile && writable && (error = TryOpen(O_WRONLY)) == 0)
            opened->access |= kWriteRights;
        if (error == EACCES && !reads && !writes)
            error = TryOpen(O_PATH);
    } else if (!reads && !writes) {
        opened->access |= request.access & MAXIMUM_ALLOWED ? kAttributeRights : 0;
        error = TryOpen(O_PATH);
    } else {
        const bool appends = (opened->access & kWriteRights) == FILE_APPEND_DATA;
        error = TryOpen((reads && writes ? O_RDWR : writes ? O_WRONLY : O_RDONLY) | (appends ? O_APPEND : 0));
    }
    if (error == ENOENT)
        raced = true;
    return error == 0 ? STATUS_SUCCESS : StatusOfErrno(error);
}

// 0 or an errno; ENOENT also when the name leads to another file by now.
int FileCreator::TryOpen(int flags)
{
    if ((flags & O_PATH) != 0 && place->descriptor) {
        opened->fd = std::move(place->descriptor);
        return 0;
    }
    const int quiet = flags & O_PATH ? 0 : O_NONBLOCK | O_NOCTTY;
    if (const int error = OpenPlace(*place, flags | quiet | NoFollow(), &opened->fd); error != 0)
        return error;
    struct stat facts;
    if (fstat(opened->fd.Get(), &facts) != 0)
        return errno;
    const FileKey key{facts.st_dev, facts.st_ino};
    if (key != place->facts.key || (facts.st_mode & S_IFMT) != (place->facts.mode & S_IFMT))
        return ENOENT;
    opened->dataFd = (flags & O_PATH) == 0;
    return 0;
}

// What may fail comes before the content is lost, and then the streams are had again. Emptying the file gives
// back the space that was had for it, which somebody else may take in that instant: the file is overwritten
// all the same, and what then doesn't fit is refused when it is written.
NTSTATUS FileCreator::Overwrite()
{
    const int fd = opened->fd.Get();
    RemovedStreams streams;
    int error = request.allocation > 0 ? AllocateSpace(fd, request.allocation) : 0;
    if (error == 0)
        error = RemoveStreams(fd, opened->object->key, &streams);
    if (error == 0) {
        error = SetEndOfFile(fd, 0);
        if (error != 0)
            RestoreStreams(fd, streams);
    }
    if (error == 0 && request.allocation > 0)
        (void)AllocateSpace(fd, request.allocation);
    if (error == 0 && request.attributes & FILE_ATTRIBUTE_READONLY)
        fchmod(fd, place->facts.mode & 07777 & ~static_cast<mode_t>(S_IWUSR));
    if (error != 0) {
        Cleanup(*opened);
        return StatusOfErrno(error);
    }
    information = request.disposition == FILE_SUPERSEDE ? FILE_SUPERSEDED : FILE_OVERWRITTEN;
    return STATUS_SUCCESS;
}

NTSTATUS FileCreator::CreateMissing()
{
    if (place->dangling && request.disposition == FILE_CREATE) {
        information = FILE_EXISTS;
        return STATUS_OBJECT_NAME_COLLISION;
    }
    if (!MayCreate() || place->dangling) {
        information = FILE_DOES_NOT_EXIST;
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    const bool directory = (request.options & FILE_DIRECTORY_FILE) != 0;
    if (name.HasTrailingSeparator() && !directory)
        return STATUS_OBJECT_NAME_INVALID;
    if (!directory && request.options & FILE_DELETE_ON_CLOSE && request.attributes & FILE_ATTRIBUTE_READONLY)
        return STATUS_CANNOT_DELETE;
    if (request.access & MAXIMUM_ALLOWED)
        opened->access |= kAttributeRights | kReadRights | kWriteRights;
    opened->path = place->path;
    opened->dotName = HiddenByName(LeafOf(place->path)) != 0;
    NTSTATUS status = directory ? CreateDirectory() : CreateFile();
    if (status != STATUS_SUCCESS)
        return status;
    place->lease.reset();
    status = Admit(0);
    if (status != STATUS_SUCCESS)
        return status;
    information = FILE_CREATED;
    return Finish();
}

NTSTATUS FileCreator::CreateFile()
{
    const bool reads = (opened->access & FILE_READ_DATA) != 0;
    const bool writes = (opened->access & kWriteRights) != 0;
    const bool appends = (opened->access & kWriteRights) == FILE_APPEND_DATA;
    const mode_t mode =
        request.mode.value_or(request.attributes & FILE_ATTRIBUTE_READONLY ? 0444 : 0666) & 0777;
    const int flags = (reads && writes ? O_RDWR : writes ? O_WRONLY : O_RDONLY) | (appends ? O_APPEND : 0);
    const std::string leaf(LeafOf(place->path));
    opened->fd.Reset(
        openat(place->parent.Get(), leaf.c_str(), flags | O_CREAT | O_EXCL | O_NOCTTY | O_CLOEXEC, mode));
    if (!opened->fd)
        return CreationStatus(errno);
    opened->kind = FileKind::kFile;
    opened->dataFd = true;
    int error = request.mode ? WidenMode(opened->fd.Get(), *request.mode) : 0;
    if (error == 0 && request.allocation > 0 && writes)
        error = AllocateSpace(opened->fd.Get(), request.allocation);
    if (error == 0)
        error = StatDescriptor(opened->fd.Get(), &place->facts);
    if (error == 0)
        return STATUS_SUCCESS;
    // It goes again, unless others have put something into it.
    FileMetadata made;
    if (StatDescriptor(opened->fd.Get(), &made) == 0 && made.endOfFile == 0)
        (void)RemoveName({place->parent.Get(), leaf}, made);
    return StatusOfErrno(error);
}

NTSTATUS FileCreator::CreateDirectory()
{
    const std::string leaf(LeafOf(place->path));
    if (mkdirat(place->parent.Get(), leaf.c_str(), request.mode.value_or(0777) & 0777) != 0)
        return CreationStatus(errno);
    const bool lists = (opened->access & FILE_LIST_DIRECTORY) != 0;
    opened->fd.Reset(openat(place->parent.Get(), leaf.c_str(),
                            (lists ? O_RDONLY : O_PATH) | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    int error = opened->fd ? 0 : errno;
    if (error == 0 && request.mode)
        error = WidenMode(opened->fd.Get(), *request.mode);
    if (error == 0)
        error = StatDescriptor(opened->fd.Get(), &place->facts);
    if (error != 0)
        return StatusOfErrno(error);
    opened->kind = FileKind::kDirectory;
    opened->dataFd = lists;
    return STATUS_SUCCESS;
}

// What failed to be created is there by now, or its directory is gone.
NTSTATUS FileCreator::CreationStatus(int error)
{
    raced = error == EEXIST;
    return error == ENOENT ? STATUS_OBJECT_PATH_NOT_FOUND : StatusOfErrno(error);
}

NTSTATUS FileCreator::Admit(uint32_t extraAccess)
{
    opened->object = FileObjectTable::Instance().Acquire(place->facts.key);
    const NTSTATUS status = opened->object->Admit(*opened, extraAccess, place->facts.links);
    // Another's close may have deleted the file after it was opened here and before it was admitted.
    if (status != STATUS_SUCCESS || DeletionCount() == deletionsBefore || !IsRemoved(opened->fd.Get()))
        return status;
    raced = true;
    Cleanup(*opened);
    return STATUS_DELETE_PENDING;
}

// The last step, when nothing but the deletability can fail any more.
NTSTATUS FileCreator::Finish()
{
    if ((request.options & FILE_DELETE_ON_CLOSE) == 0)
        return STATUS_SUCCESS;
    const NTSTATUS status = CheckDeletable(*opened);
    if (status != STATUS_SUCCESS && status != STATUS_DIRECTORY_NOT_EMPTY) {
        Cleanup(*opened);
        return status;
    }
    opened->deleteOnClose = true;
    return STATUS_SUCCESS;
}

bool FileCreator::WantsWriting() const
{
    return IsOverwriting() || (request.access & kWriteRights) != 0;
}

int FileCreator::NoFollow() const
{
    return request.options & FILE_OPEN_REPARSE_POINT ? O_NOFOLLOW : 0;
}

} // namespace fodr::ntposix
