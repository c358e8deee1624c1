// NtSetInformationFile: one function a class, and a table of what each asks for.
#include "lib/misc/FileTime.h"
#include "ntposix/Deletion.h"
#include "ntposix/FileMetadata.h"
#include "ntposix/FileRanges.h"
#include "ntposix/HandleTable.h"
#include "ntposix/Lookup.h"
#include "ntposix/NamedStream.h"
#include "ntposix/NtCall.h"
#include "ntposix/Rename.h"
#include "platform/NtRecords.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <sys/stat.h>

namespace fodr::nt {

using namespace ntposix;

namespace {

constexpr uint32_t kSynchronous = FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT;

struct FileChange {
    OpenFile &open;
    const uint8_t *data;
    uint32_t length;
};

// Times of a set that leave the file's (MS-FSCC 2.4.7: 0; -1 and -2 steer later automatic changes).
timespec TimeToSet(int64_t fileTime)
{
    return fileTime <= 0 ? timespec{.tv_sec = 0, .tv_nsec = UTIME_OMIT} : TimespecOf(fileTime);
}

int SetTimes(const OpenFile &open, const FILE_BASIC_INFORMATION &basic)
{
    if (basic.LastAccessTime <= 0 && basic.LastWriteTime <= 0)
        return 0;
    const timespec times[2] = {TimeToSet(basic.LastAccessTime), TimeToSet(basic.LastWriteTime)};
    if (open.dataFd)
        return futimens(open.fd.Get(), times) == 0 ? 0 : errno;
    if (utimensat(open.fd.Get(), "", times, AT_EMPTY_PATH) == 0)
        return 0;
    if (errno != EINVAL || open.kind == FileKind::kLink)
        return errno;
    return utimensat(AT_FDCWD, DescriptorPath(open.fd.Get()).c_str(), times, 0) == 0 ? 0 : errno;
}

// The read-only attribute is the owner's write bit; of a directory it has no meaning here.
int SetReadOnly(const OpenFile &open, bool readOnly)
{
    if (open.kind != FileKind::kFile)
        return 0;
    struct stat stat;
    if (fstat(open.fd.Get(), &stat) != 0)
        return errno;
    const mode_t write = S_IWUSR;
    const mode_t present = stat.st_mode & 07777;
    const mode_t wanted = readOnly ? present & ~write : present | write;
    return wanted == present ? 0 : SetMode(open.fd.Get(), wanted);
}

// Others aren't attributes that can be kept.
int SetHiddenAndSystem(const OpenFile &open, uint32_t attributes)
{
    if (open.kind != FileKind::kFile && !open.IsDirectory())
        return 0;
    FileMetadata facts;
    const int error = StatDescriptor(open.fd.Get(), &facts);
    return error ? error : WriteDosAttributes(open.fd.Get(), facts, attributes);
}

// Creation and change time belong to the file system, which doesn't let them be set. The padding at the end
// of the record isn't touched: who has it from a wire has it without.
NTSTATUS SetBasic(const FileChange &change)
{
    FILE_BASIC_INFORMATION basic;
    constexpr size_t kDefined =
        offsetof(FILE_BASIC_INFORMATION, FileAttributes) + sizeof(basic.FileAttributes);
    memcpy(&basic, change.data, kDefined);
    const uint32_t attributes = basic.FileAttributes;
    const bool improper = change.open.IsDirectory() ? (attributes & FILE_ATTRIBUTE_TEMPORARY) != 0
                                                    : (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    if (improper)
        return STATUS_INVALID_PARAMETER;
    // The attributes first: they change no time that is set. Those that are kept, before the file may be
    // read-only.
    const OpenFile &file = change.open.File();
    int error = attributes ? SetHiddenAndSystem(file, attributes) : 0;
    if (error == 0 && attributes)
        error = SetReadOnly(file, attributes & FILE_ATTRIBUTE_READONLY);
    if (error == 0)
        error = SetTimes(file, basic);
    return error == 0 ? STATUS_SUCCESS : StatusOfErrno(error);
}

NTSTATUS SetRename(const FileChange &change)
{
    constexpr uint32_t kNameOffset = offsetof(FILE_RENAME_INFORMATION, FileName);
    const auto record = LoadRecord<FILE_RENAME_INFORMATION>(change.data);
    if (record.FileNameLength % 2 != 0 || record.FileNameLength == 0 ||
        record.FileNameLength > change.length - kNameOffset)
        return STATUS_INVALID_PARAMETER;
    if (record.RootDirectory != 0)
        return STATUS_NOT_SUPPORTED;
    if (change.open.stream) // the name is its file's
        return STATUS_INVALID_PARAMETER;
    std::u16string target(record.FileNameLength / 2, u'\0');
    memcpy(target.data(), change.data + kNameOffset, record.FileNameLength);
    return RenameFile(change.open, target, record.ReplaceIfExists != 0);
}

// The directory is a handle, and the name one component of it.
struct NewName {
    OpenFileRef directory;
    std::u16string leaf;
};

template <typename Record> NTSTATUS ReadNewName(const FileChange &change, Record *head, NewName *name)
{
    constexpr uint32_t kNameOffset = offsetof(Record, FileName);
    Record &record = *head;
    record = {};
    memcpy(&record, change.data, kNameOffset);
    if (record.FileNameLength % 2 != 0 || record.FileNameLength == 0 ||
        record.FileNameLength > change.length - kNameOffset)
        return STATUS_INVALID_PARAMETER;
    if (change.open.stream || record.RootDirectory == 0)
        return STATUS_INVALID_PARAMETER;
    name->directory =
        HandleTable::Instance().Find(reinterpret_cast<HANDLE>(static_cast<uintptr_t>(record.RootDirectory)));
    if (!name->directory)
        return STATUS_INVALID_HANDLE;
    if (!name->directory->IsDirectory())
        return STATUS_NOT_A_DIRECTORY;
    name->leaf.resize(record.FileNameLength / 2);
    memcpy(name->leaf.data(), change.data + kNameOffset, record.FileNameLength);
    return STATUS_SUCCESS;
}

NTSTATUS SetLink(const FileChange &change)
{
    FILE_LINK_INFORMATION record;
    NewName name;
    const NTSTATUS status = ReadNewName(change, &record, &name);
    if (status != STATUS_SUCCESS)
        return status;
    if (record.ReplaceIfExists)
        return STATUS_NOT_SUPPORTED;
    return LinkInto(change.open, *name.directory, name.leaf);
}

NTSTATUS SetRenameEx(const FileChange &change)
{
    FILE_RENAME_INFORMATION_EX record;
    NewName name;
    const NTSTATUS status = ReadNewName(change, &record, &name);
    if (status != STATUS_SUCCESS)
        return status;
    if (record.Flags & FODR_RENAME_EXCHANGE)
        return ExchangeWith(change.open, *name.directory, name.leaf);
    return RenameInto(change.open, *name.directory, name.leaf,
                      {.replace = (record.Flags & FILE_RENAME_REPLACE_IF_EXISTS) != 0,
                       .posix = (record.Flags & FILE_RENAME_POSIX_SEMANTICS) != 0,
                       .ignoreReadOnly = (record.Flags & FILE_RENAME_IGNORE_READONLY_ATTRIBUTE) != 0});
}

NTSTATUS SetDeletionEx(const FileChange &change)
{
    const uint32_t flags = LoadRecord<FILE_DISPOSITION_INFORMATION_EX>(change.data).Flags;
    const bool wanted = (flags & FILE_DISPOSITION_DELETE) != 0;
    const auto readOnly =
        flags & FILE_DISPOSITION_IGNORE_READONLY_ATTRIBUTE ? ReadOnlyFiles::kGo : ReadOnlyFiles::kStay;
    if (flags & FILE_DISPOSITION_ON_CLOSE)
        return SetDeleteOnClose(change.open, wanted, readOnly);
    if (wanted && flags & FILE_DISPOSITION_POSIX_SEMANTICS)
        return DeleteNow(change.open, readOnly);
    return SetDisposition(change.open, wanted, readOnly);
}

NTSTATUS SetDeletion(const FileChange &change)
{
    return SetDisposition(change.open, change.data[0] != 0);
}

NTSTATUS SetPosition(const FileChange &change)
{
    const int64_t position = LoadRecord<FILE_POSITION_INFORMATION>(change.data).CurrentByteOffset;
    if (position < 0 || (change.open.options & kSynchronous) == 0)
        return STATUS_INVALID_PARAMETER;
    change.open.position = position;
    return STATUS_SUCCESS;
}

// MS-FSCC 2.4.31: only these can be changed, and synchronous stays synchronous.
NTSTATUS SetMode(const FileChange &change)
{
    constexpr uint32_t kChangeable = FILE_WRITE_THROUGH | FILE_SEQUENTIAL_ONLY | kSynchronous;
    const uint32_t mode = LoadRecord<FILE_MODE_INFORMATION>(change.data).Mode;
    const bool wasSynchronous = (change.open.options & kSynchronous) != 0;
    const bool isSynchronous = (mode & kSynchronous) != 0;
    if (mode & ~kChangeable || (mode & kSynchronous) == kSynchronous || wasSynchronous != isSynchronous)
        return STATUS_INVALID_PARAMETER;
    change.open.mode = (change.open.mode & ~kChangeable) | mode;
    return STATUS_SUCCESS;
}

NTSTATUS SetSize(const FileChange &change, int (*set)(int, int64_t))
{
    const int64_t size = LoadRecord<int64_t>(change.data);
    if (size < 0 || change.open.kind != FileKind::kFile)
        return STATUS_INVALID_PARAMETER;
    const int fd = change.open.fd.Get();
    const auto setStream = [&] { return size > kLongestStream ? ENOSPC : set(fd, size); };
    const int error = change.open.stream ? change.open.stream->Change(change.open.File().fd.Get(), setStream)
                                         : set(fd, size);
    return error == 0 ? STATUS_SUCCESS : StatusOfErrno(error);
}

NTSTATUS SetAllocationSize(const FileChange &change)
{
    return SetSize(change, &SetAllocation);
}

NTSTATUS SetFileSize(const FileChange &change)
{
    return SetSize(change, &SetEndOfFile);
}

struct SetClass {
    uint32_t number;
    uint32_t minimumLength;
    uint32_t right; // 0: none is needed
    NTSTATUS (*set)(const FileChange &);
};

constexpr SetClass kClasses[] = {
    {FileBasicInformation, sizeof(FILE_BASIC_INFORMATION), FILE_WRITE_ATTRIBUTES, &SetBasic},
    {FileRenameInformation, sizeof(FILE_RENAME_INFORMATION), DELETE_ACCESS, &SetRename},
    {FileLinkInformation, offsetof(FILE_LINK_INFORMATION, FileName) + sizeof(char16_t), FILE_WRITE_ATTRIBUTES,
     &SetLink},
    {FileDispositionInformation, sizeof(FILE_DISPOSITION_INFORMATION), DELETE_ACCESS, &SetDeletion},
    {FilePositionInformation, sizeof(FILE_POSITION_INFORMATION), 0, &SetPosition},
    {FileModeInformation, sizeof(FILE_MODE_INFORMATION), 0, &SetMode},
    {FileAllocationInformation, sizeof(FILE_ALLOCATION_INFORMATION), FILE_WRITE_DATA, &SetAllocationSize},
    {FileEndOfFileInformation, sizeof(FILE_END_OF_FILE_INFORMATION), FILE_WRITE_DATA, &SetFileSize},
    {FileDispositionInformationEx, sizeof(FILE_DISPOSITION_INFORMATION_EX), DELETE_ACCESS, &SetDeletionEx},
    {FileRenameInformationEx, offsetof(FILE_RENAME_INFORMATION_EX, FileName) + sizeof(char16_t),
     DELETE_ACCESS, &SetRenameEx},
};

NTSTATUS Set(OpenFile &open, const void *buffer, uint32_t length, uint32_t infoClass)
{
    const auto found = std::find_if(std::begin(kClasses), std::end(kClasses),
                                    [infoClass](const SetClass &e) { return e.number == infoClass; });
    if (found == std::end(kClasses))
        return STATUS_INVALID_INFO_CLASS;
    if (length < found->minimumLength)
        return STATUS_INFO_LENGTH_MISMATCH;
    if (found->right != 0 && !open.HasAccess(found->right))
        return STATUS_ACCESS_DENIED;
    return found->set({open, static_cast<const uint8_t *>(buffer), length});
}

} // namespace

NTSTATUS NtSetInformationFile(HANDLE file, IO_STATUS_BLOCK *ioStatus, const void *buffer, uint32_t length,
                              uint32_t infoClass)
{
    const NTSTATUS status = WithoutThrowing([&] {
        const OpenFileRef open = HandleTable::Instance().Find(file);
        return open ? Set(*open, buffer, length, infoClass) : STATUS_INVALID_HANDLE;
    });
    return Complete(ioStatus, status, 0);
}

} // namespace fodr::nt
