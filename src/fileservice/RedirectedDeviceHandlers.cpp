// How RedirectedDevice reads, writes, queries, sets and controls.
#include "fileservice/IPreReader.h"
#include "fileservice/RedirectedDevice.h"
#include "fileservice/RequestLimits.h"
#include "rdpdr/wire/CompletionBuilder.h"
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
    // The private form: the FileId stands where the standard has Length. That is meant.
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
    // OutputBufferLength stays 0 although data follows it. That is meant: the agent goes by the packet's
    // size.
    if (completion && length > 0)
        memcpy(deviceIdField + kDataFromDeviceId, output.Data(), length);
    return Write(std::move(completion));
}

} // namespace fodr
