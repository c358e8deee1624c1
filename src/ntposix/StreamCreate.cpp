#include "ntposix/Create.h"
#include "ntposix/Creator.h"
#include "ntposix/Deletion.h"
#include "ntposix/FileObject.h"
#include "ntposix/FileRanges.h"
#include "ntposix/NamedStream.h"
#include "ntposix/NtCall.h"

#include <cerrno>

namespace fodr::ntposix {

using namespace nt;

namespace {

constexpr uint32_t kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// A file system without attributes answers as one without streams does.
NTSTATUS StatusOfStreamError(int error)
{
    if (error == 0)
        return STATUS_SUCCESS;
    if (error == ESTALE)
        return STATUS_DELETE_PENDING;
    return error == ENOTSUP || error == EINVAL ? STATUS_OBJECT_NAME_INVALID : StatusOfErrno(error);
}

} // namespace

NTSTATUS StreamCreator::Run(std::unique_ptr<OpenFile> *file)
{
    if (request.options & FILE_OPEN_BY_FILE_ID)
        return STATUS_NOT_SUPPORTED;
    if (name.HasTrailingSeparator())
        return STATUS_OBJECT_NAME_INVALID;
    if (request.options & FILE_DIRECTORY_FILE)
        return STATUS_INVALID_PARAMETER;
    return RunAttempts(file);
}

NTSTATUS StreamCreator::RunOnce()
{
    NTSTATUS status = OpenBase();
    if (status != STATUS_SUCCESS)
        return status;
    opened = std::make_unique<OpenFile>();
    status = CheckRights();
    if (status == STATUS_SUCCESS)
        status = FindOrMake();
    if (status == STATUS_SUCCESS)
        status = Admit();
    if (status != STATUS_SUCCESS) {
        LeaveBase();
        return status;
    }
    // Closing the stream closes the file from here on.
    opened->base = std::move(base);
    opened->deleteOnClose = (request.options & FILE_DELETE_ON_CLOSE) != 0;
    if (!opened->stream->IsPresent()) {
        raced = true; // its last handle took it away
        opened->deleteOnClose = false;
        status = STATUS_DELETE_PENDING;
    } else if (information == FILE_OPENED && IsOverwriting()) {
        status = Overwrite();
    }
    if (status == STATUS_SUCCESS && madeBase && request.attributes & FILE_ATTRIBUTE_READONLY)
        MakeBaseReadOnly();
    if (status != STATUS_SUCCESS)
        Cleanup(*opened);
    return status;
}

// For its attributes, which no share mode of others forbids. A new file takes its stream before it becomes
// read-only.
NTSTATUS StreamCreator::OpenBase()
{
    const bool mayCreate = MayCreate();
    const CreateRequest ofFile{.access = FILE_READ_ATTRIBUTES | SYNCHRONIZE,
                               .share = kShareAll,
                               .disposition = mayCreate ? FILE_OPEN_IF : FILE_OPEN,
                               .options = request.options & FILE_OPEN_REPARSE_POINT,
                               .attributes = request.attributes & ~FILE_ATTRIBUTE_READONLY,
                               .exactName = request.exactName};
    const NtName fileName = name.OfFile();
    FileCreator creator(fileName, ofFile);
    const NTSTATUS status = creator.Run(&base);
    madeBase = status == STATUS_SUCCESS && creator.Information() == FILE_CREATED;
    information = creator.Information() == FILE_DOES_NOT_EXIST ? FILE_DOES_NOT_EXIST : 0;
    return status;
}

// Where its file system can.
void StreamCreator::MakeBaseReadOnly()
{
    FileMetadata facts;
    if (StatDescriptor(opened->base->fd.Get(), &facts) == 0)
        fchmod(opened->base->fd.Get(), facts.mode & 07777 & ~static_cast<mode_t>(0222));
}

// A file that was made for a stream that can't be goes again, unless others have come to know it: neither an
// open that was admitted meanwhile nor bytes that were put into it may be lost. The stream leaves before the
// file whose inode it is known by.
void StreamCreator::LeaveBase()
{
    FileMetadata facts;
    if (madeBase && !raced && !opened->object && base->Stat(&facts) == 0 && facts.endOfFile == 0)
        base->object->DeleteIfAlone(*base);
    Cleanup(*base);
    opened.reset();
    base.reset();
}

NTSTATUS StreamCreator::CheckRights()
{
    FileMetadata facts;
    if (const int error = base->Stat(&facts); error != 0)
        return StatusOfErrno(error);
    // Of attributes the system alone decides (NamedStream.h).
    const bool readOnly = (facts.attributes & FILE_ATTRIBUTE_READONLY) != 0 && !madeBase &&
                          !name.Stream().starts_with(u"user.");
    const bool deletes = (request.options & FILE_DELETE_ON_CLOSE) != 0;
    if (readOnly && deletes)
        return STATUS_CANNOT_DELETE;
    const bool mayWrite = !readOnly && MayWrite(base->fd.Get());
    const bool writes = (request.access & kWriteRights) != 0 || IsOverwriting() || deletes;
    if (writes && !mayWrite)
        return STATUS_ACCESS_DENIED;
    opened->access = request.access & ~MAXIMUM_ALLOWED;
    if (request.access & MAXIMUM_ALLOWED)
        opened->access |= kAttributeRights | kReadRights | (mayWrite ? kWriteRights : 0);
    return STATUS_SUCCESS;
}

NTSTATUS StreamCreator::FindOrMake()
{
    if (!MayCreate()) {
        const int error = Find();
        information = error == ENODATA ? FILE_DOES_NOT_EXIST : FILE_OPENED;
        return error == ENODATA ? STATUS_OBJECT_NAME_NOT_FOUND : StatusOfStreamError(error);
    }
    // Names that differ in case are one, but not to the attributes: else two could be made at once.
    const MutexLock guard(base->object->makingStream);
    int error = Find();
    if (error == 0 && request.disposition == FILE_CREATE) {
        information = FILE_EXISTS;
        return STATUS_OBJECT_NAME_COLLISION;
    }
    information = error == 0 ? FILE_OPENED : FILE_CREATED;
    if (error == ENODATA)
        error = opened->stream->Make(base->fd.Get(), &opened->fd);
    raced = error == EEXIST || error == ESTALE;
    return StatusOfStreamError(error);
}

// 0 or an errno: ENODATA when it can be made.
int StreamCreator::Find()
{
    std::string attribute;
    int error = FindStream(base->fd.Get(), name.Stream(), request.exactName, &attribute);
    if (error != 0 && error != ENODATA)
        return error;
    opened->stream = NamedStream::Acquire(base->object->key, attribute);
    error = opened->stream->Load(base->fd.Get(), &opened->fd);
    raced = error == ESTALE;
    return error;
}

NTSTATUS StreamCreator::Admit()
{
    FileMetadata bytes;
    if (const int error = StatDescriptor(opened->fd.Get(), &bytes); error != 0)
        return StatusOfErrno(error);
    opened->kind = FileKind::kFile;
    opened->dataFd = true;
    opened->dotName = base->dotName.load();
    opened->share = request.share;
    opened->options = request.options;
    opened->exactName = request.exactName;
    opened->mode = request.options & kModeOptions;
    opened->object = FileObjectTable::Instance().Acquire(bytes.key);
    const bool overwrites = information == FILE_OPENED && IsOverwriting();
    return opened->object->Admit(*opened, overwrites ? FILE_WRITE_DATA : 0, 1);
}

NTSTATUS StreamCreator::Overwrite()
{
    const int fd = opened->fd.Get();
    const int error = opened->stream->Change(opened->File().fd.Get(), [fd] { return SetEndOfFile(fd, 0); });
    raced = error == ESTALE;
    information = request.disposition == FILE_SUPERSEDE ? FILE_SUPERSEDED : FILE_OVERWRITTEN;
    return StatusOfStreamError(error);
}

} // namespace fodr::ntposix
