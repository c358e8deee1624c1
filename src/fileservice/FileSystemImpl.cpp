#include "fileservice/FileSystemImpl.h"

#include "fileservice/FileCall.h"
#include "fileservice/IFileSystem.h"
#include "fileservice/PacketNames.h"
#include "fileservice/ReadOnlyShare.h"
#include "lib/unicode/CodeSet.h"
#include "platform/NtRecords.h"
#include "platform/TaskPool.h"
#include "rdpdr/wire/RdpdrRecords.h"
#include "runtime/LogCall.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <new>
#include <string_view>

namespace fodr {

namespace {

using namespace nt;

constexpr uint32_t ERROR_NOT_FOUND = 1168;

// Options and rights as the calls here need them: every call waits on its handle, without alerts. An append
// open can't keep to the alignment that unbuffered I/O demands.
uint32_t AdjustedOptions(uint32_t desiredAccess, uint32_t createOptions)
{
    if (desiredAccess & FILE_APPEND_DATA)
        createOptions &= ~FILE_NO_INTERMEDIATE_BUFFERING;
    return (createOptions & ~FILE_SYNCHRONOUS_IO_ALERT) | FILE_SYNCHRONOUS_IO_NONALERT;
}

} // namespace

std::unique_ptr<IFileSystem> FileSystemImpl::Create(const std::string &root, const ShareRules &rules)
{
    std::unique_ptr<FileSystemImpl> files(new (std::nothrow) FileSystemImpl(root));
    if (files)
        files->KeepRoot(root, rules);
    return files;
}

void FileSystemImpl::KeepRoot(const std::string &root, const ShareRules &rules)
{
    readOnlyShare = rules.readOnly;
    std::u16string wide;
    if (Utf8ToUtf16(root, wide))
        shareRoot.emplace(wide, rules);
}

NTSTATUS FileSystemImpl::RedirectedCreateFile(uint32_t *fileId, uint32_t desiredAccess, const char16_t *path,
                                              uint64_t allocationSize, uint32_t fileAttributes,
                                              uint32_t shareAccess, uint32_t createDisposition,
                                              uint32_t createOptions, uint32_t *information, bool readOnly)
{
    *fileId = 0;
    *information = 0;
    // Opening by id could reach any file of the volume.
    if (createOptions & FILE_OPEN_BY_FILE_ID)
        return STATUS_NOT_SUPPORTED;
    // Bit 1 is that of FILE_CREATE and FILE_OPEN_IF. That read-only stops nothing else here is meant: the
    // rest is the agent's to refuse.
    if (readOnly && (createDisposition & 2) && !PathFileExists(path)) {
        std::string text;
        if (IsLogEnabled(LOG_LEVEL_DEBUG) && Utf16ToUtf8(path, text))
            LOG_DEBUG("File[%s] cannot be created on readonly CDR\n", text.c_str());
        return STATUS_ACCESS_DENIED;
    }
    if (std::u16string_view(path).size() > kLongestNtText)
        return STATUS_NAME_TOO_LONG;
    const bool mayMake = createDisposition == FILE_OPEN_IF;
    if (readOnlyShare) {
        if (IsChangingCreate(desiredAccess, createDisposition, createOptions))
            return STATUS_MEDIA_WRITE_PROTECTED;
        createDisposition = FILE_OPEN;
        desiredAccess &= ~FILE_WRITE_ATTRIBUTES;
    }

    UNICODE_STRING name;
    RtlInitUnicodeString(&name, path);
    const uint32_t matching = nameMatching == NameMatching::AnyCase ? OBJ_CASE_INSENSITIVE : 0;
    OBJECT_ATTRIBUTES attributes{sizeof(OBJECT_ATTRIBUTES), nullptr, &name, matching, nullptr, nullptr};
    LARGE_INTEGER size{static_cast<int64_t>(allocationSize)};
    HANDLE handle = nullptr;
    IO_STATUS_BLOCK ioStatus;
    Clear(&ioStatus);
    NTSTATUS status = NtCreateFile(&handle, desiredAccess | SYNCHRONIZE, &attributes, &ioStatus, &size,
                                   fileAttributes, shareAccess, createDisposition,
                                   AdjustedOptions(desiredAccess, createOptions), nullptr, 0);
    *fileId = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(handle));
    if (readOnlyShare && mayMake && status == STATUS_OBJECT_NAME_NOT_FOUND)
        return STATUS_MEDIA_WRITE_PROTECTED;
    *information = static_cast<uint32_t>(ioStatus.Information);
    return status;
}

NTSTATUS FileSystemImpl::RedirectedCloseFile(uint32_t fileId)
{
    return NtClose(HandleOf(fileId));
}

NTSTATUS FileSystemImpl::RedirectedCancelAllIo(uint32_t fileId)
{
    uint32_t error = CancelIoEx(HandleOf(fileId));
    if (error == 0 || error == ERROR_NOT_FOUND)
        return STATUS_SUCCESS;
    LOG_ERROR("Could not cancel IO on handle = 0x%x, last error = %d)\n", fileId, static_cast<int>(error));
    return STATUS_UNSUCCESSFUL;
}

NTSTATUS FileSystemImpl::RedirectedWriteFile(uint32_t fileId, IO_STATUS_BLOCK *ioStatus, const void *buffer,
                                             uint32_t length, const LARGE_INTEGER &offset)
{
    if (readOnlyShare)
        return RefuseChange(ioStatus);
    LARGE_INTEGER position = offset;
    return CallAndWait(ioStatus, [&](HANDLE event) {
        return NtWriteFile(HandleOf(fileId), event, nullptr, nullptr, ioStatus, buffer, length, &position,
                           nullptr);
    });
}

NTSTATUS FileSystemImpl::RedirectedDeviceIoControlFile(uint32_t fileId, IO_STATUS_BLOCK *ioStatus,
                                                       uint32_t controlCode, const void *input,
                                                       uint32_t inputLength, void *output,
                                                       uint32_t outputLength)
{
    if (readOnlyShare && IsChangingControl(controlCode))
        return RefuseChange(ioStatus);
    return CallAndWait(ioStatus, [&](HANDLE event) {
        return NtDeviceIoControlFile(HandleOf(fileId), event, nullptr, nullptr, ioStatus, controlCode, input,
                                     inputLength, output, outputLength);
    });
}

NTSTATUS FileSystemImpl::RedirectedNotifyChangeDirectoryFile(uint32_t fileId, IO_STATUS_BLOCK *ioStatus,
                                                             uint32_t completionFilter, bool watchTree)
{
    // What changed is thrown away: only that something did leaves this system.
    alignas(8) uint8_t changes[32] = {};
    const platform::TaskPool::BlockingSection blocking;
    if (!blocking.IsGranted()) {
        Clear(ioStatus);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return CallAndWait(ioStatus, [&](HANDLE event) {
        return NtNotifyChangeDirectoryFile(HandleOf(fileId), event, nullptr, nullptr, ioStatus, changes,
                                           sizeof(changes), completionFilter, watchTree);
    });
}

NTSTATUS FileSystemImpl::RedirectedLockFile(uint32_t fileId, IO_STATUS_BLOCK *ioStatus,
                                            const LARGE_INTEGER &offset, const LARGE_INTEGER &length,
                                            bool failImmediately, bool exclusive)
{
    LARGE_INTEGER from = offset;
    LARGE_INTEGER count = length;
    auto lock = [&](bool waits) {
        return CallAndWait(ioStatus, [&](HANDLE event) {
            return NtLockFile(HandleOf(fileId), event, nullptr, nullptr, ioStatus, &from, &count, 0, !waits,
                              exclusive);
        });
    };
    // Most ranges are free: such a lock needs no leave to wait.
    const NTSTATUS status = lock(false);
    const bool taken = status == STATUS_LOCK_NOT_GRANTED || status == STATUS_FILE_LOCK_CONFLICT;
    if (failImmediately || !taken)
        return status;
    const platform::TaskPool::BlockingSection blocking;
    if (!blocking.IsGranted()) {
        Clear(ioStatus);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return lock(true);
}

NTSTATUS FileSystemImpl::RedirectedUnlockFile(uint32_t fileId, IO_STATUS_BLOCK *ioStatus,
                                              const LARGE_INTEGER &offset, const LARGE_INTEGER &length)
{
    LARGE_INTEGER from = offset;
    LARGE_INTEGER count = length;
    Clear(ioStatus);
    return NtUnlockFile(HandleOf(fileId), ioStatus, &from, &count, 0);
}

// ---- Calls that hand out buffers or convert records ----

namespace {

constexpr uint32_t kFirstQuerySize = 1024;

// Bytes at the end of the native record that the wire record lacks (MS-FSCC 2.4.7 and 2.4.41).
uint32_t NativeTail(uint32_t fileInfoClass)
{
    switch (fileInfoClass) {
    case FileBasicInformation:
        return 4;
    case FileStandardInformation:
        return 2;
    default:
        return 0;
    }
}

// Whether the record gives the file a name below the share's root. The last unit of a name is its terminator.
NTSTATUS CheckRename(const uint8_t *wireRecord, uint32_t length)
{
    constexpr uint32_t kName = kWireSize<RDP_FILE_RENAME_INFORMATION>;
    if (length < kName)
        return STATUS_INVALID_PARAMETER;
    const uint32_t nameLength = LoadRecord<RDP_FILE_RENAME_INFORMATION>(wireRecord).FileNameLength;
    if (nameLength < sizeof(char16_t) || nameLength % sizeof(char16_t) != 0 || nameLength > length - kName)
        return STATUS_INVALID_PARAMETER;
    std::u16string name(nameLength / sizeof(char16_t) - 1, u'\0');
    memcpy(name.data(), wireRecord + kName, name.size() * sizeof(char16_t));
    const bool below = BeginsBelowRoot(name) && HasNoDotComponents(name) && !NamesRoot(name);
    return below ? STATUS_SUCCESS : STATUS_OBJECT_NAME_INVALID;
}

} // namespace

NTSTATUS FileSystemImpl::RedirectedQueryVolumeInformationFile(uint32_t fileId, IO_STATUS_BLOCK *ioStatus,
                                                              uint8_t **outBuffer, uint32_t fsInfoClass)
{
    *outBuffer = nullptr;
    MallocBuffer buffer;
    NTSTATUS status = QueryGrowing(buffer, kFirstQuerySize, ioStatus, [&](uint8_t *data, uint32_t size) {
        return NtQueryVolumeInformationFile(HandleOf(fileId), ioStatus, data, size, fsInfoClass);
    });
    if (status != STATUS_SUCCESS)
        return status;
    if (fsInfoClass == FileFsVolumeInformation)
        MoveVolumeLabel(buffer.Data(), &ioStatus->Information);
    *outBuffer = buffer.Release();
    return status;
}

NTSTATUS FileSystemImpl::RedirectedSetVolumeInformationFile(uint32_t fileId, IO_STATUS_BLOCK *ioStatus,
                                                            const void *buffer, uint32_t length,
                                                            uint32_t fsInfoClass)
{
    if (readOnlyShare)
        return RefuseChange(ioStatus);
    Clear(ioStatus);
    return NtSetVolumeInformationFile(HandleOf(fileId), ioStatus, buffer, length, fsInfoClass);
}

NTSTATUS FileSystemImpl::RedirectedQueryInformationFile(uint32_t fileId, IO_STATUS_BLOCK *ioStatus,
                                                        uint8_t **outBuffer, uint32_t fileInfoClass)
{
    *outBuffer = nullptr;
    MallocBuffer buffer;
    NTSTATUS status = QueryGrowing(buffer, kFirstQuerySize, ioStatus, [&](uint8_t *data, uint32_t size) {
        return NtQueryInformationFile(HandleOf(fileId), ioStatus, data, size, fileInfoClass);
    });
    if (IsError(status))
        return status;
    if (status == STATUS_SUCCESS)
        *outBuffer = buffer.Release();
    uint32_t tail = NativeTail(fileInfoClass);
    if (ioStatus->Information >= tail)
        ioStatus->Information -= tail;
    return status;
}

NTSTATUS FileSystemImpl::RedirectedSetInformationFile(uint32_t fileId, IO_STATUS_BLOCK *ioStatus,
                                                      uint8_t *buffer, uint32_t length,
                                                      uint32_t fileInfoClass)
{
    static_assert(kSetBufferReadable == sizeof(FILE_BASIC_INFORMATION));
    if (readOnlyShare && IsChangingClass(fileInfoClass))
        return RefuseChange(ioStatus);
    Clear(ioStatus);
    if (fileInfoClass == FileRenameInformation) {
        if (const NTSTATUS refused = CheckRename(buffer, length); refused != STATUS_SUCCESS)
            return refused;
    }
    uint8_t *native = nullptr;
    uint32_t nativeLength = length;
    NTSTATUS status = packer.UnpackSetInformation(fileInfoClass, buffer, length, &native, &nativeLength);
    if (IsError(status))
        return status;
    MallocBuffer converted(native != buffer ? native : nullptr, nativeLength);
    return NtSetInformationFile(HandleOf(fileId), ioStatus, native, nativeLength, fileInfoClass);
}

NTSTATUS FileSystemImpl::RedirectedQueryDirectoryFile(uint32_t fileId, IO_STATUS_BLOCK *ioStatus,
                                                      uint8_t **outBuffer, uint32_t fileInfoClass,
                                                      bool restartScan, const char16_t *pattern,
                                                      bool multiEntry)
{
    *outBuffer = nullptr;
    Clear(ioStatus);
    if (pattern && std::u16string_view(pattern).size() > kLongestNtText)
        return STATUS_OBJECT_NAME_INVALID;
    NtCallEvent event;
    if (uint32_t error = event.Create())
        return StatusOfError(error);

    bool many = multiEntry && (fileInfoClass == FileFullDirectoryInformation ||
                               fileInfoClass == FileBothDirectoryInformation);
    UNICODE_STRING patternText;
    UNICODE_STRING *fileName = nullptr;
    if (pattern && *pattern) {
        RtlInitUnicodeString(&patternText, pattern);
        fileName = &patternText;
    }
    MallocBuffer buffer;
    NTSTATUS status = QueryGrowing(
        buffer, multiEntry ? kListingAnswer : kFirstQuerySize, ioStatus, [&](uint8_t *data, uint32_t size) {
            return FinishCall(NtQueryDirectoryFile(HandleOf(fileId), event.Handle(), nullptr, nullptr,
                                                   ioStatus, data, size, fileInfoClass, !many, fileName,
                                                   restartScan),
                              event, ioStatus);
        });
    if (status != STATUS_SUCCESS)
        return status;
    if (many) {
        *outBuffer = buffer.Release();
        return status;
    }
    uint8_t *entry = nullptr;
    auto entryLength = static_cast<uint32_t>(ioStatus->Information);
    status = packer.PackDirectoryEntry(fileInfoClass, buffer.Data(), entryLength, &entry, &entryLength);
    if (IsError(status)) {
        ioStatus->Information = 0;
        return status;
    }
    ioStatus->Information = entryLength;
    if (entry == buffer.Data())
        entry = buffer.Release();
    *outBuffer = entry;
    return status;
}

NTSTATUS FileSystemImpl::RedirectedReadFile(uint32_t fileId, IO_STATUS_BLOCK *ioStatus, uint8_t **outBuffer,
                                            uint32_t length, const LARGE_INTEGER &offset)
{
    *outBuffer = nullptr;
    Clear(ioStatus);
    length = std::min(length, kLongestRead);
    MallocBuffer buffer = MallocBuffer::Allocate(length);
    if (!buffer)
        return STATUS_NO_MEMORY;
    LARGE_INTEGER position = offset;
    NTSTATUS status = CallAndWait(ioStatus, [&](HANDLE event) {
        return NtReadFile(HandleOf(fileId), event, nullptr, nullptr, ioStatus, buffer.Data(), length,
                          &position, nullptr);
    });
    if (IsError(status))
        ioStatus->Information = 0;
    ioStatus->Information = std::min<uint64_t>(ioStatus->Information, length);
    memset(buffer.Data() + ioStatus->Information, 0, length - ioStatus->Information);
    *outBuffer = buffer.Release();
    return status;
}

} // namespace fodr
