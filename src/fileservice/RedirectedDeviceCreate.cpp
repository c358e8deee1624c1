// How RedirectedDevice opens files.
#include "drives/FodrDeviceFilterPolicy.h"
#include "drives/FodrDeviceUtils.h"
#include "fileservice/IPreReader.h"
#include "fileservice/PacketText.h"
#include "fileservice/RedirectedDevice.h"
#include "lib/unicode/CodeSet.h"
#include "logging/LoggerManager.h"
#include "rdpdr/wire/CompletionBuilder.h"
#include "rdpdr/wire/CreateFlagsText.h"
#include "runtime/LogCall.h"

#include <new>
#include <string_view>

namespace fodr {

using namespace nt;

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
    // An open that says neither file nor directory isn't filtered; that is meant.
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
