#include "fileservice/RedirectedDevice.h"

#include "fileservice/IPreReader.h"
#include "lib/unicode/CodeSet.h"
#include "rdpdr/wire/CompletionBuilder.h"
#include "rdpdr/wire/IRdpdrChannel.h"
#include "runtime/LogCall.h"

#include <utility>

namespace fodr {

using namespace nt;

namespace {

// How long a close waits before it cancels once more. A request that had begun but wasn't yet inside its file
// call when the cancel came would otherwise never be woken.
constexpr uint32_t kCancelAgainMS = 20;

std::u16string Widen(const std::string &text)
{
    std::u16string wide;
    return Utf8ToUtf16(text, wide) ? wide : std::u16string();
}

} // namespace

RedirectedDevice::RedirectedDevice(std::unique_ptr<IFileSystem> ownFileSystem,
                                   RedirectedDeviceSettings settings)
    : fileSystem(std::move(ownFileSystem)), channel(settings.channel), packetTrace(settings.packetTrace),
      deviceType(settings.deviceType), path(std::move(settings.path)),
      sharePath(std::move(settings.sharePath)), deviceId(settings.deviceId), name(std::move(settings.name)),
      friendlyName(std::move(settings.friendlyName)), available(settings.available),
      driveLetterShare(settings.driveLetterShare),
      multiEntryDirectoryQuery(settings.multiEntryDirectoryQuery), readOnly(settings.readOnly),
      preReadEnabled(settings.preReadEnabled), filterPolicy(settings.filterPolicy),
      preReader(settings.preReader), widePath(Widen(path))
{}

RedirectedDevice::~RedirectedDevice()
{
    RedirectedDevice::CloseAllFiles();
}

bool RedirectedDevice::OnIoRequest(RdpdrStream *packet)
{
    FODR_TRACE_FUNCTION();
    if (!packet)
        return false;
    ReadRecord<RDPDR_HEADER>(*packet);
    auto request = ReadRecord<Request>(*packet);
    if (!IsAvailable())
        return SendCompletion(request.CompletionId, STATUS_DEVICE_REMOVED);
    if (request.MajorFunction == IRP_MJ_CREATE || request.MajorFunction == IRP_MJ_CLOSE)
        return Dispatch(request, *packet);

    // Before the major function is looked at: an unknown one on an unknown file is answered.
    RCPtr<RdpFileHandle> handle = BeginIo(request.FileId);
    if (!handle) {
        LOG_ERROR("Cannot process this request due to invalid handle. (device = 0x%x, major = 0x%x, minor = "
                  "0x%x, handle = 0x%x)\n",
                  GetDeviceId(), request.MajorFunction, request.MinorFunction, request.FileId);
        return SendCompletion(request.CompletionId, STATUS_INVALID_HANDLE);
    }
    const RdpFileHandle::InFlight inFlight(*handle); // also when memory runs out: a close waits for the end
    return Dispatch(request, *packet);
}

bool RedirectedDevice::Dispatch(const Request &request, RdpdrStream &packet)
{
    FODR_TRACE_FUNCTION();
    switch (request.MajorFunction) {
    case IRP_MJ_CREATE:
        return HandleCreate(request, packet);
    case IRP_MJ_CLOSE:
        return HandleClose(request);
    case IRP_MJ_READ:
        return HandleRead(request);
    case IRP_MJ_WRITE:
        return HandleWrite(request, packet);
    case IRP_MJ_QUERY_INFORMATION:
        return HandleQueryInformation(request);
    case IRP_MJ_SET_INFORMATION:
        return HandleSetInformation(request, packet);
    case IRP_MJ_QUERY_VOLUME_INFORMATION:
        return HandleQueryVolumeInformation(request);
    case IRP_MJ_SET_VOLUME_INFORMATION:
        return HandleSetVolumeInformation(request, packet);
    case IRP_MJ_DIRECTORY_CONTROL:
        if (request.MinorFunction == IRP_MN_QUERY_DIRECTORY)
            return HandleDirectoryControl(request, packet);
        if (request.MinorFunction == IRP_MN_NOTIFY_CHANGE_DIRECTORY)
            return HandleNotifyChangeDirectory(request);
        return HandleNotImplemented(request);
    case IRP_MJ_DEVICE_CONTROL:
        return HandleDeviceControl(request, packet);
    case IRP_MJ_LOCK_CONTROL:
        return HandleLockControl(request, packet);
    default:
        return false; // dropped without a reply, unlike an unknown minor function: that is meant
    }
}

bool RedirectedDevice::HandleNotImplemented(const Request &request)
{
    FODR_TRACE_FUNCTION();
    LOG_WARN("IO request not implemented: major function = %lu, minor function = %lu\n",
             static_cast<unsigned long>(request.MajorFunction),
             static_cast<unsigned long>(request.MinorFunction));
    return SendCompletion(request.CompletionId, STATUS_NOT_IMPLEMENTED);
}

// ---- open files ------------------------------------------------------------------------------------------

RCPtr<RdpFileHandle> RedirectedDevice::BeginIo(uint32_t fileId)
{
    FODR_TRACE_FUNCTION();
    OVMutexLock held(filesLock);
    auto found = files.find(fileId);
    if (found == files.end())
        return nullptr;
    found->second->BeginIo();
    return found->second;
}

bool RedirectedDevice::HandleClose(const Request &request)
{
    FODR_TRACE_FUNCTION();
    RCPtr<RdpFileHandle> handle;
    {
        OVMutexLock held(filesLock);
        auto found = files.find(request.FileId);
        if (found != files.end()) {
            handle = found->second;
            files.erase(found);
        }
    }
    NTSTATUS status = handle ? CloseFileHandle(request.FileId, handle) : STATUS_INVALID_HANDLE;
    return SendCompletion(request.CompletionId, status);
}

NTSTATUS RedirectedDevice::CloseFileHandle(uint32_t fileId, const RCPtr<RdpFileHandle> &handle)
{
    FODR_TRACE_FUNCTION();
    NTSTATUS status = EndRequests(fileId, *handle);
    if (!IsError(status))
        status = fileSystem->RedirectedCloseFile(fileId);
    if (IsError(status) && status != STATUS_INVALID_HANDLE) {
        // The agent may close it again, while there is an agent to do so.
        OVMutexLock held(filesLock);
        if (!retired)
            files[fileId] = handle;
    }
    return status;
}

NTSTATUS RedirectedDevice::EndRequests(uint32_t fileId, RdpFileHandle &handle)
{
    FODR_TRACE_FUNCTION();
    if (!handle.IsBusy())
        return STATUS_SUCCESS;
    NTSTATUS status = fileSystem->RedirectedCancelAllIo(fileId);
    if (IsError(status))
        return status;
    while (!handle.WaitIdle(kCancelAgainMS))
        fileSystem->RedirectedCancelAllIo(fileId);
    return STATUS_SUCCESS;
}

void RedirectedDevice::CloseAllFiles()
{
    FODR_TRACE_FUNCTION();
    SetAvailable(false);
    std::map<uint32_t, RCPtr<RdpFileHandle>> taken;
    {
        OVMutexLock held(filesLock);
        taken.swap(files);
    }
    for (const auto &[fileId, handle] : taken)
        CloseFileHandle(fileId, handle);
}

void RedirectedDevice::Retire()
{
    {
        OVMutexLock held(filesLock);
        retired = true;
    }
    CloseAllFiles();
}

// ---- replies ---------------------------------------------------------------------------------------------

bool RedirectedDevice::SendCompletion(uint32_t completionId, NTSTATUS status)
{
    return Write(BuildIoCompletion(GetDeviceId(), completionId, status, 0, nullptr));
}

bool RedirectedDevice::SendLength(uint32_t completionId, NTSTATUS status, uint32_t length)
{
    FODR_TRACE_FUNCTION();
    uint8_t *deviceIdField = nullptr;
    RdpdrStreamPtr completion = BuildIoCompletion(GetDeviceId(), completionId, status, 0, &deviceIdField);
    if (completion)
        StoreRecord(DR_LENGTH_RSP{length}, deviceIdField + kBodyFromDeviceId);
    return Write(std::move(completion));
}

bool RedirectedDevice::SendData(uint32_t completionId, NTSTATUS status, const MallocBuffer &data)
{
    return Write(BuildDataCompletion(GetDeviceId(), completionId, status, data.Data(), data.Size()));
}

bool RedirectedDevice::Write(RdpdrStreamPtr completion)
{
    if (!completion)
        return false;
    notices.Settle();
    return channel->WriteChannel(completion.get());
}

int32_t RedirectedDevice::PreReadPattern(const Request &request) const
{
    return preReadEnabled && preReader ? preReader->GetPattern(request) : IPreReader::kNoPattern;
}

} // namespace fodr
