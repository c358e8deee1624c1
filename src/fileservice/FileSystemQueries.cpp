// The operations of FileSystemImpl that hand out buffers or convert records.
#include "fileservice/FileSystemImpl.h"
#include "fileservice/NtCalls.h"
#include "fileservice/PacketText.h"
#include "fileservice/ReadOnlyShare.h"
#include "fileservice/RequestLimits.h"
#include "platform/NtRecords.h"
#include "rdpdr/wire/RdpdrRecords.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace fodr {

using namespace nt;

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
