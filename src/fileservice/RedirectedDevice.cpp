#include "fileservice/RedirectedDevice.h"

#include "drives/FodrDeviceFilterPolicy.h"
#include "drives/FodrDeviceUtils.h"
#include "fileservice/IRedirectedDevice.h"
#include "fileservice/PacketNames.h"
#include "lib/unicode/CodeSet.h"
#include "logging/LoggerManager.h"
#include "rdpdr/wire/PacketWords.h"
#include "rdpdr/wire/RdpdrStream.h"
#include "runtime/LogCall.h"

#include <new>
#include <string_view>
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
        return false; // dropped without a reply, unlike an unknown minor function; meant
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

// ---- Open files ----

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

// ---- Replies ----

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

void RdpFileHandle::BeginIo()
{
    OVMutexLock held(lock);
    if (pendingIo.fetch_add(1) == 0)
        idleEvent.Reset();
}

void RdpFileHandle::EndIo()
{
    OVMutexLock held(lock);
    if (pendingIo.fetch_sub(1) == 1)
        idleEvent.Set();
}

bool RdpFileHandle::WaitIdle(uint32_t timeoutMS)
{
    return idleEvent.Wait(timeoutMS) != OVEvent::kTimeout;
}

// ---- Create ----

bool RedirectedDevice::HandleCreate(const Request &request, RdpdrStream &packet)
{
    FODR_TRACE_FUNCTION();
    auto create = request.Body<DR_CREATE_REQ>();
    std::u16string absolutePath;
    if (!ReadPacketText(packet, create.PathLength, widePath, absolutePath))
        return false;
    if (create.PathLength == 0)
        absolutePath += u'\\';
    const std::u16string_view relativePath = std::u16string_view(absolutePath).substr(widePath.size());
    if (!BeginsBelowRoot(relativePath))
        return SendCompletion(request.CompletionId, STATUS_OBJECT_NAME_INVALID);
    // A share's root may come from the agent's policy and the rest comes from this packet. Neither may be
    // able to end the process with a byte that isn't text.
    bool rootIsText = !widePath.empty() || path.empty();
    std::string shownPath;
    if (!rootIsText || !Utf16ToUtf8(absolutePath, shownPath))
        return SendCompletion(request.CompletionId, STATUS_OBJECT_NAME_INVALID);

    bool accessAllowed = CheckCreateDriveAccess(shownPath);
    bool filterAllowed = IsFileOpenAllowedByDeviceFilter(shownPath, create.CreateOptions);
    if (!accessAllowed || !filterAllowed) {
        LOG_INFO("File/Subfolder [%s] cannot be accessed.", shownPath.c_str());
        return SendCompletion(request.CompletionId, STATUS_ACCESS_DENIED);
    }
    if (!HasNoDotComponents(relativePath))
        return SendCompletion(request.CompletionId, STATUS_OBJECT_NAME_INVALID);
    const bool isRoot = NamesRoot(relativePath);
    if (isRoot && create.CreateOptions & FILE_DELETE_ON_CLOSE)
        return SendCompletion(request.CompletionId, STATUS_ACCESS_DENIED);
    CreateOutcome outcome = CreateFileAt(create, absolutePath, shownPath);
    if (!IsError(outcome.status)) {
        const NTSTATUS kept = KeepOpenFile(outcome.fileId, isRoot);
        if (IsError(kept)) {
            fileSystem->RedirectedCloseFile(outcome.fileId);
            return SendCompletion(request.CompletionId, kept);
        }
    }
    return CompleteCreate(request, outcome);
}

RedirectedDevice::CreateOutcome RedirectedDevice::CreateFileAt(const DR_CREATE_REQ &create,
                                                               const std::u16string &absolutePath,
                                                               const std::string &shownPath)
{
    FODR_TRACE_FUNCTION();
    CreateOutcome outcome;
    outcome.status = fileSystem->RedirectedCreateFile(
        &outcome.fileId, create.DesiredAccess, absolutePath.c_str(), create.AllocationSize,
        create.FileAttributes, create.SharedAccess, create.CreateDisposition, create.CreateOptions,
        &outcome.information, readOnly);
    LOG_TRACE("RedirectedCreateFile with Absolute path = [%s], desiredAccess = [0x%x], fileAttributes[0x%x], "
              "shareAccess = [0x%x], createDisposition = [0x%x], createOptions = [0x%x], status returned = "
              "[%lx], FileId = [%x].\n",
              shownPath.c_str(), create.DesiredAccess, create.FileAttributes, create.SharedAccess,
              create.CreateDisposition, create.CreateOptions,
              static_cast<unsigned long>(static_cast<uint32_t>(outcome.status)), outcome.fileId);
    if (packetTrace && packetTrace->Level() >= LOG_LEVEL_TRACE)
        LOG_TRACE("%s", CreateFlagsText(create).c_str());
    return outcome;
}

NTSTATUS RedirectedDevice::KeepOpenFile(uint32_t fileId, bool isRoot)
{
    FODR_TRACE_FUNCTION();
    try {
        RCPtr<RdpFileHandle> handle(new RdpFileHandle(isRoot));
        OVMutexLock held(filesLock);
        if (retired || !IsAvailable())
            return STATUS_DEVICE_REMOVED;
        files[fileId] = handle;
        return STATUS_SUCCESS;
    } catch (const std::bad_alloc &) {
        return STATUS_NO_MEMORY;
    }
}

bool RedirectedDevice::CompleteCreate(const Request &request, const CreateOutcome &outcome)
{
    FODR_TRACE_FUNCTION();
    uint8_t *deviceIdField = nullptr;
    int32_t pattern = PreReadPattern(request);
    RdpdrStreamPtr completion =
        pattern == IPreReader::kNoPattern
            ? BuildIoCompletion(GetDeviceId(), request.CompletionId, outcome.status, 0, &deviceIdField)
            : preReader->BuildPreReadIoCompletion(pattern, GetDeviceId(), outcome.fileId, fileSystem.get(),
                                                  request.CompletionId, outcome.status, &deviceIdField);
    if (completion) {
        DR_CREATE_RSP response{outcome.fileId, static_cast<uint8_t>(outcome.information)};
        StoreRecord(response, deviceIdField + kBodyFromDeviceId);
    }
    return Write(std::move(completion));
}

bool RedirectedDevice::CheckCreateDriveAccess(const std::string &)
{
    return true;
}

bool RedirectedDevice::IsFileOpenAllowedByDeviceFilter(const std::string &absolutePath,
                                                       uint32_t createOptions)
{
    FODR_TRACE_FUNCTION();
    constexpr std::string_view kNtPrefix = "\\??\\";
    // An open that says neither file nor directory isn't filtered; meant.
    if (!filterPolicy || !filterPolicy->HasDeviceFilter() ||
        !(createOptions & (FILE_DIRECTORY_FILE | FILE_NON_DIRECTORY_FILE)))
        return true;
    LOG_TRACE("Check filter policy on share folder %s", absolutePath.c_str());
    std::string local = absolutePath;
    if (local.starts_with(kNtPrefix))
        local.erase(0, kNtPrefix.size());
    // Asked anew at each open: a link may lead out of the share's own volume.
    std::string deviceInfo = FodrDeviceUtils::GetDeviceInfo(FodrClientUtils::GetLinkPath(local));
    return filterPolicy->IsAllowedByDeviceFilter(deviceInfo);
}

} // namespace fodr
