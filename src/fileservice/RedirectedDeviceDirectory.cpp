// How RedirectedDevice lists and watches directories and locks ranges.
#include "fileservice/PacketText.h"
#include "fileservice/RedirectedDevice.h"
#include "runtime/LogCall.h"

namespace fodr {

using namespace nt;

namespace {

const char *YesNo(bool value)
{
    return value ? "true" : "false";
}

} // namespace

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

} // namespace fodr
