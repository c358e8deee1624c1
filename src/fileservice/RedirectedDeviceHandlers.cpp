// How RedirectedDevice serves the requests on an open file.
#include "fileservice/IFileSystem.h"
#include "fileservice/IRedirectedDevice.h"
#include "fileservice/PacketNames.h"
#include "fileservice/RedirectedDevice.h"
#include "platform/NtRecords.h"
#include "rdpdr/wire/RdpdrStream.h"
#include "runtime/LogCall.h"

#include <algorithm>
#include <cstring>

namespace fodr {

using namespace nt;

namespace {

// What a file call handed out: as much of the block as it says that it moved, nothing if there is no block.
MallocBuffer Result(uint8_t *block, const IO_STATUS_BLOCK &ioStatus)
{
    return MallocBuffer(block, block ? static_cast<size_t>(ioStatus.Information) : 0);
}

LARGE_INTEGER Signed(uint64_t value)
{
    return LARGE_INTEGER{static_cast<int64_t>(value)};
}

// A payload stated longer than the packet: nothing may be done with what there is of it.
bool IsCut(const RdpdrStream &packet, uint32_t length)
{
    return length > packet.Remaining();
}

const char *YesNo(bool value)
{
    return value ? "true" : "false";
}

} // namespace

bool RedirectedDevice::HandleRead(const Request &request)
{
    FODR_TRACE_FUNCTION();
    auto read = request.Body<DR_READ_REQ>();
    IO_STATUS_BLOCK ioStatus{};
    uint8_t *block = nullptr;
    NTSTATUS status =
        fileSystem->RedirectedReadFile(request.FileId, &ioStatus, &block, read.Length, Signed(read.Offset));
    return SendData(request.CompletionId, status, Result(block, ioStatus));
}

bool RedirectedDevice::HandleWrite(const Request &request, RdpdrStream &packet)
{
    FODR_TRACE_FUNCTION();
    auto write = request.Body<DR_WRITE_REQ>();
    if (IsCut(packet, write.Length))
        return SendCompletion(request.CompletionId, STATUS_INVALID_PARAMETER);
    IO_STATUS_BLOCK ioStatus{};
    NTSTATUS status = fileSystem->RedirectedWriteFile(request.FileId, &ioStatus, packet.Cursor(),
                                                      write.Length, Signed(write.Offset));
    return SendLength(request.CompletionId, status, static_cast<uint32_t>(ioStatus.Information));
}

bool RedirectedDevice::HandleQueryInformation(const Request &request)
{
    FODR_TRACE_FUNCTION();
    auto query = request.Body<DR_DRIVE_QUERY_INFORMATION_REQ>();
    IO_STATUS_BLOCK ioStatus{};
    uint8_t *block = nullptr;
    NTSTATUS status = fileSystem->RedirectedQueryInformationFile(request.FileId, &ioStatus, &block,
                                                                 query.FsInformationClass);
    LOG_TRACE("QueryInformationFile: FILE_INFORMATION_CLASS = %lu, status = 0x%x\n",
              static_cast<unsigned long>(query.FsInformationClass), static_cast<uint32_t>(status));
    return SendData(request.CompletionId, status, Result(block, ioStatus));
}

bool RedirectedDevice::HandleQueryVolumeInformation(const Request &request)
{
    FODR_TRACE_FUNCTION();
    auto query = request.Body<DR_DRIVE_QUERY_VOLUME_INFORMATION_REQ>();
    IO_STATUS_BLOCK ioStatus{};
    uint8_t *block = nullptr;
    NTSTATUS status = fileSystem->RedirectedQueryVolumeInformationFile(request.FileId, &ioStatus, &block,
                                                                       query.FsInformationClass);
    LOG_TRACE("QueryVolumeInformation: FS_INFORMATION_CLASS = %lu, status = 0x%x\n",
              static_cast<unsigned long>(query.FsInformationClass), static_cast<uint32_t>(status));
    return SendData(request.CompletionId, status, Result(block, ioStatus));
}

bool RedirectedDevice::HandleSetInformation(const Request &request, RdpdrStream &packet)
{
    FODR_TRACE_FUNCTION();
    auto set = request.Body<DR_DRIVE_SET_INFORMATION_REQ>();
    if (IsCut(packet, set.Length))
        return SendCompletion(request.CompletionId, STATUS_INVALID_PARAMETER);
    MallocBuffer buffer =
        MallocBuffer::AllocateZeroed(std::max<size_t>(set.Length, IFileSystem::kSetBufferReadable));
    if (!buffer)
        return SendCompletion(request.CompletionId, STATUS_NO_MEMORY);
    packet.Read(buffer.Data(), set.Length);
    IO_STATUS_BLOCK ioStatus{};
    NTSTATUS status =
        SetInformation(request.FileId, &ioStatus, buffer.Data(), set.Length, set.FsInformationClass);
    LOG_TRACE("SetInformationFile: FILE_INFORMATION_CLASS = %lu, status = 0x%x\n",
              static_cast<unsigned long>(set.FsInformationClass), static_cast<uint32_t>(status));

    int32_t pattern = PreReadPattern(request);
    if (pattern == IPreReader::kNoPattern)
        return SendCompletion(request.CompletionId, status);
    uint8_t *deviceIdField = nullptr;
    RdpdrStreamPtr completion =
        preReader->BuildPreReadIoCompletion(pattern, GetDeviceId(), request.FileId, fileSystem.get(),
                                            request.CompletionId, status, &deviceIdField);
    // The private form has the FileId where the standard has Length; meant.
    if (completion)
        StoreRecord(DR_LENGTH_RSP{request.FileId}, deviceIdField + kBodyFromDeviceId);
    return Write(std::move(completion));
}

bool RedirectedDevice::HandleSetVolumeInformation(const Request &request, RdpdrStream &packet)
{
    FODR_TRACE_FUNCTION();
    auto set = request.Body<DR_DRIVE_SET_VOLUME_INFORMATION_REQ>();
    if (IsCut(packet, set.Length))
        return SendCompletion(request.CompletionId, STATUS_INVALID_PARAMETER);
    MallocBuffer buffer;
    if (set.Length != 0) {
        buffer = MallocBuffer::Allocate(set.Length);
        if (!buffer)
            return SendCompletion(request.CompletionId, STATUS_NO_MEMORY);
        packet.Read(buffer.Data(), set.Length);
    }
    IO_STATUS_BLOCK ioStatus{};
    NTSTATUS status = fileSystem->RedirectedSetVolumeInformationFile(request.FileId, &ioStatus, buffer.Data(),
                                                                     set.Length, set.FsInformationClass);
    LOG_TRACE("SetVolumeInformation: FS_INFORMATION_CLASS = %lu, status = 0x%x\n",
              static_cast<unsigned long>(set.FsInformationClass), static_cast<uint32_t>(status));
    // The request's Length, also when the operation failed.
    return SendLength(request.CompletionId, status, set.Length);
}

bool RedirectedDevice::HandleDeviceControl(const Request &request, RdpdrStream &packet)
{
    FODR_TRACE_FUNCTION();
    auto control = request.Body<DR_CONTROL_REQ>();
    if (IsCut(packet, control.InputBufferLength))
        return SendCompletion(request.CompletionId, STATUS_INVALID_PARAMETER);
    MallocBuffer input = MallocBuffer::Allocate(control.InputBufferLength);
    const uint32_t outputLength = std::min(control.OutputBufferLength, kLongestControlOutput);
    MallocBuffer output = MallocBuffer::AllocateZeroed(outputLength);
    if (!input || !output)
        return SendCompletion(request.CompletionId, STATUS_NO_MEMORY);
    packet.Read(input.Data(), control.InputBufferLength);
    IO_STATUS_BLOCK ioStatus{};
    NTSTATUS status = Control(request.FileId, &ioStatus, control.IoControlCode, input, output);
    size_t length = std::min<uint64_t>(ioStatus.Information, outputLength);
    uint8_t *deviceIdField = nullptr;
    RdpdrStreamPtr completion =
        BuildIoCompletion(GetDeviceId(), request.CompletionId, status, length, &deviceIdField);
    // OutputBufferLength stays 0 although data follows it; meant. The agent goes by the packet's size.
    if (completion && length > 0)
        memcpy(deviceIdField + kDataFromDeviceId, output.Data(), length);
    return Write(std::move(completion));
}

// ---- Directories and locks ----

bool RedirectedDevice::HandleDirectoryControl(const Request &request, RdpdrStream &packet)
{
    FODR_TRACE_FUNCTION();
    auto query = request.Body<DR_DRIVE_QUERY_DIRECTORY_REQ>();
    std::u16string fullPath;
    const char16_t *pattern = nullptr;
    if (query.PathLength != 0) {
        if (!ReadPacketText(packet, query.PathLength, {}, fullPath))
            return SendCompletion(request.CompletionId, STATUS_NO_MEMORY);
        size_t separator = fullPath.rfind(u'\\');
        pattern = fullPath.c_str() + (separator == std::u16string::npos ? 0 : separator + 1);
    }
    IO_STATUS_BLOCK ioStatus{};
    uint8_t *block = nullptr;
    NTSTATUS status =
        QueryDirectory(request, pattern ? fullPath.c_str() : nullptr, pattern, &ioStatus, &block);
    MallocBuffer entries(block, block ? static_cast<size_t>(ioStatus.Information) : 0);
    LOG_TRACE("Output buffer size: %d\n", static_cast<int>(entries.Size()));
    if (IsLogEnabled(LOG_LEVEL_TRACE))
        LogWriteHex("RedirectedDevice::HandleDirectoryControl()", LOG_LEVEL_TRACE, entries.Data(),
                    entries.Size());
    return SendData(request.CompletionId, status, entries);
}

NTSTATUS RedirectedDevice::QueryDirectory(const DR_DEVICE_IOREQUEST &request, const char16_t *,
                                          const char16_t *pattern, IO_STATUS_BLOCK *ioStatus,
                                          uint8_t **outBuffer)
{
    FODR_TRACE_FUNCTION();
    auto query = request.Body<DR_DRIVE_QUERY_DIRECTORY_REQ>();
    return fileSystem->RedirectedQueryDirectoryFile(request.FileId, ioStatus, outBuffer,
                                                    query.FsInformationClass, query.InitialQuery != 0,
                                                    pattern, multiEntryDirectoryQuery);
}

bool RedirectedDevice::HandleNotifyChangeDirectory(const Request &request)
{
    FODR_TRACE_FUNCTION();
    auto notify = request.Body<DR_DRIVE_NOTIFY_CHANGE_DIRECTORY_REQ>();
    IO_STATUS_BLOCK ioStatus{};
    NoticeOrder::Delivery delivery(notices);
    NTSTATUS status = fileSystem->RedirectedNotifyChangeDirectoryFile(
        request.FileId, &ioStatus, notify.CompletionFilter, notify.WatchTree != 0);
    if (IsError(status))
        LOG_ERROR("RedirectedNotifyChangeDirectoryFile failed, status = 0x%x\n",
                  static_cast<uint32_t>(status));
    return SendCompletion(request.CompletionId, status);
}

bool RedirectedDevice::HandleLockControl(const Request &request, RdpdrStream &packet)
{
    return SendCompletion(request.CompletionId, ApplyLocks(request, packet));
}

NTSTATUS RedirectedDevice::ApplyLocks(const Request &request, RdpdrStream &packet)
{
    FODR_TRACE_FUNCTION();
    auto lock = request.Body<DR_DRIVE_LOCK_REQ>();
    if (lock.NumLocks > 1 && lock.Operation != RDP_LOWIO_OP_UNLOCK_MULTIPLE) {
        LOG_WARN(
            "Warning: more than 1 lock specified for single-lock operation type: NumLocks = %lu, Operation = "
            "%lu\n",
            static_cast<unsigned long>(lock.NumLocks), static_cast<unsigned long>(lock.Operation));
        return STATUS_INVALID_PARAMETER;
    }
    if (lock.NumLocks > packet.Remaining() / kWireSize<RDP_LOCK_INFO>) {
        LOG_ERROR("Invalid lock request data\n");
        return STATUS_INVALID_PARAMETER;
    }
    // Ranges that are locked already stay locked when a later one fails.
    for (uint32_t i = 0; i < lock.NumLocks; ++i) {
        NTSTATUS status = ApplyLock(request.FileId, lock, ReadRecord<RDP_LOCK_INFO>(packet));
        if (IsError(status))
            return status;
    }
    return STATUS_SUCCESS;
}

NTSTATUS RedirectedDevice::ApplyLock(uint32_t fileId, const DR_DRIVE_LOCK_REQ &lock,
                                     const RDP_LOCK_INFO &range)
{
    FODR_TRACE_FUNCTION();
    LARGE_INTEGER offset{static_cast<int64_t>(range.Offset)};
    LARGE_INTEGER length{static_cast<int64_t>(range.Length)};
    bool failImmediately = (lock.F & kLockFailImmediately) != 0;
    bool exclusive = lock.Operation == RDP_LOWIO_OP_EXCLUSIVELOCK;
    IO_STATUS_BLOCK ioStatus{};
    NTSTATUS status;
    switch (lock.Operation) {
    case RDP_LOWIO_OP_SHAREDLOCK:
    case RDP_LOWIO_OP_EXCLUSIVELOCK:
        status =
            fileSystem->RedirectedLockFile(fileId, &ioStatus, offset, length, failImmediately, exclusive);
        LOG_TRACE("Lock file operation: offset = %lld, length = %lld, failImmediately = %s, exclusive = %s, "
                  "status = 0x%x, iostatus = 0x%x\n",
                  static_cast<long long>(offset.QuadPart), static_cast<long long>(length.QuadPart),
                  YesNo(failImmediately), YesNo(exclusive), static_cast<uint32_t>(status),
                  static_cast<uint32_t>(ioStatus.Status));
        break;
    case RDP_LOWIO_OP_UNLOCK:
    case RDP_LOWIO_OP_UNLOCK_MULTIPLE:
        status = fileSystem->RedirectedUnlockFile(fileId, &ioStatus, offset, length);
        LOG_TRACE("Unlock file operation: offset = %lld, length = %lld, status = 0x%x, iostatus = 0x%x\n",
                  static_cast<long long>(offset.QuadPart), static_cast<long long>(length.QuadPart),
                  static_cast<uint32_t>(status), static_cast<uint32_t>(ioStatus.Status));
        break;
    default:
        LOG_ERROR("Invalid lock operation type\n");
        return STATUS_INVALID_PARAMETER;
    }
    return IsError(status) ? status : ioStatus.Status;
}

// ---- No file gets a name outside the share ----

bool RedirectedDevice::IsRoot(uint32_t fileId)
{
    OVMutexLock held(filesLock);
    const auto found = files.find(fileId);
    return found != files.end() && found->second->isRoot;
}

NTSTATUS RedirectedDevice::SetInformation(uint32_t fileId, IO_STATUS_BLOCK *ioStatus, uint8_t *buffer,
                                          uint32_t length, uint32_t infoClass)
{
    if (NamesAnotherPlace(infoClass))
        return STATUS_INVALID_INFO_CLASS;
    if (TakesName(infoClass) && IsRoot(fileId))
        return STATUS_ACCESS_DENIED;
    if (infoClass == FileRenameInformationEx || infoClass == FileLinkInformation)
        return NameWithinShare(fileId, ioStatus, buffer, length, infoClass);
    return fileSystem->RedirectedSetInformationFile(fileId, ioStatus, buffer, length, infoClass);
}

// The directory stays open until the name is made: its number can't become another file's meanwhile.
NTSTATUS RedirectedDevice::NameWithinShare(uint32_t fileId, IO_STATUS_BLOCK *ioStatus, uint8_t *buffer,
                                           uint32_t length, uint32_t infoClass)
{
    uint32_t directoryId = 0;
    NTSTATUS status = ReadNewName(infoClass, buffer, &length, &directoryId);
    if (status != STATUS_SUCCESS)
        return status;
    const RCPtr<RdpFileHandle> directory = BeginIo(directoryId);
    if (!directory)
        return STATUS_INVALID_HANDLE;
    status = IsDirectory(directoryId)
                 ? fileSystem->RedirectedSetInformationFile(fileId, ioStatus, buffer, length, infoClass)
                 : STATUS_NOT_A_DIRECTORY;
    directory->EndIo();
    return status;
}

// The source stays open until its bytes are copied, as the directory above does.
NTSTATUS RedirectedDevice::Control(uint32_t fileId, IO_STATUS_BLOCK *ioStatus, uint32_t code,
                                   MallocBuffer &input, MallocBuffer &output)
{
    if (CarriesHandle(code))
        return STATUS_INVALID_DEVICE_REQUEST;
    const auto control = [&] {
        return fileSystem->RedirectedDeviceIoControlFile(fileId, ioStatus, code, input.Data(),
                                                         static_cast<uint32_t>(input.Size()), output.Data(),
                                                         static_cast<uint32_t>(output.Size()));
    };
    if (code != FSCTL_FODR_COPY_RANGE)
        return control();
    if (input.Size() < sizeof(FODR_RANGE_COPY))
        return STATUS_INVALID_PARAMETER;
    const auto sourceId = LoadLittle<uint64_t>(input.Data() + offsetof(FODR_RANGE_COPY, Source));
    const RCPtr<RdpFileHandle> source =
        sourceId <= UINT32_MAX ? BeginIo(static_cast<uint32_t>(sourceId)) : nullptr;
    if (!source)
        return STATUS_INVALID_HANDLE;
    const NTSTATUS status = control();
    source->EndIo();
    return status;
}

bool RedirectedDevice::IsDirectory(uint32_t fileId)
{
    IO_STATUS_BLOCK ioStatus{};
    uint8_t *block = nullptr;
    const NTSTATUS status =
        fileSystem->RedirectedQueryInformationFile(fileId, &ioStatus, &block, FileStandardInformation);
    const MallocBuffer facts(block, block ? static_cast<size_t>(ioStatus.Information) : 0);
    constexpr size_t kDirectory = offsetof(FILE_STANDARD_INFORMATION, Directory);
    return status == STATUS_SUCCESS && facts.Size() > kDirectory && facts.Data()[kDirectory] != 0;
}

} // namespace fodr
