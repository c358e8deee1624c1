#include "fileservice/RedirectedDeviceAccessControl.h"

#include "lib/unicode/CodeSet.h"
#include "platform/NtRecords.h"
#include "rdpdr/wire/WireLayout.h"
#include "runtime/LogCall.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

namespace fodr {

using namespace nt;

namespace {

bool HasNextEntryOffset(uint32_t infoClass)
{
    return infoClass == FileDirectoryInformation || infoClass == FileFullDirectoryInformation ||
           infoClass == FileBothDirectoryInformation || infoClass == FileNamesInformation;
}

MallocBuffer CopyOf(const MallocBuffer &buffer)
{
    MallocBuffer copy = MallocBuffer::Allocate(buffer.Size());
    if (copy)
        memcpy(copy.Data(), buffer.Data(), buffer.Size());
    return copy;
}

void DumpTrace(const char *where, const MallocBuffer &bytes)
{
    if (IsLogEnabled(LOG_LEVEL_TRACE))
        LogWriteHex(where, LOG_LEVEL_TRACE, bytes.Data(), bytes.Size());
}

} // namespace

RedirectedDeviceAccessControl::RedirectedDeviceAccessControl(std::unique_ptr<IFileSystem> ownFileSystem,
                                                             RedirectedDeviceSettings settings,
                                                             std::shared_ptr<AllowAccessList> allowList)
    : RedirectedDevice(std::move(ownFileSystem), std::move(settings)), allowAccessList(std::move(allowList))
{}

RedirectedDeviceAccessControl::~RedirectedDeviceAccessControl() = default;

// ---- What may be opened ----

bool RedirectedDeviceAccessControl::CheckCreateDriveAccess(const std::string &absolutePath)
{
    FODR_TRACE_FUNCTION();
    LOG_DEBUG("Absolute path = [%s].\n", absolutePath.c_str());
    if (allowAccessList->IsRoot(absolutePath))
        return true;
    bool allowed = IsBypassedFileType(absolutePath) || IsAllowedAccess(absolutePath);
    return allowed && allowAccessList->IsWithinLimit(absolutePath);
}

bool RedirectedDeviceAccessControl::IsBypassedFileType(const std::string &absolutePath) const
{
    FODR_TRACE_FUNCTION();
    if (!IsZoneMark(absolutePath))
        return false;
    LOG_DEBUG("Bypass check for file = [%s].\n", absolutePath.c_str());
    return true;
}

bool RedirectedDeviceAccessControl::IsAllowedAccess(const std::string &absolutePath) const
{
    LOG_DEBUG("File/subfolder name = [%s].\n", absolutePath.c_str());
    return allowAccessList->Covers(absolutePath);
}

void RedirectedDeviceAccessControl::UpdateAllowAccessFileList(const std::vector<std::string> &names)
{
    FODR_TRACE_FUNCTION();
    AllowAccessList::Entries added = allowAccessList->Append(names);
    for (const std::string &entry : added)
        LOG_TRACE("File is added in access list: (%s)\n", entry.c_str());
    if (added.empty())
        return;
    // A listing of the outdated list is not cached.
    OVMutexLock held(cacheLock);
    allowAccessInfoCache.clear();
}

// ---- The root's listing ----

NTSTATUS RedirectedDeviceAccessControl::QueryDirectory(const DR_DEVICE_IOREQUEST &request,
                                                       const char16_t *fullPath, const char16_t *pattern,
                                                       IO_STATUS_BLOCK *ioStatus, uint8_t **outBuffer)
{
    FODR_TRACE_FUNCTION();
    if (fullPath) {
        std::string text;
        // A path from a packet can't end the process, even if it is no text.
        if (!Utf16ToUtf8(fullPath, text)) {
            ioStatus->Information = 0;
            return ioStatus->Status = STATUS_OBJECT_NAME_INVALID;
        }
        LOG_TRACE("Query directory info: (%s)\n", text.c_str());
        if (text == "\\*")
            return GetAllowAccessListInfoFromCache(request, fullPath, pattern, ioStatus, outBuffer);
    } else if (request.Body<DR_DRIVE_QUERY_DIRECTORY_REQ>().InitialQuery == 0) {
        OVMutexLock held(cacheLock);
        if (request.FileId == lastListedFileId) {
            lastListedFileId = 0;
            ioStatus->Information = 0;
            return ioStatus->Status = STATUS_NO_MORE_FILES;
        }
    }
    return RedirectedDevice::QueryDirectory(request, fullPath, pattern, ioStatus, outBuffer);
}

NTSTATUS RedirectedDeviceAccessControl::GetAllowAccessListInfoFromCache(const DR_DEVICE_IOREQUEST &request,
                                                                        const char16_t *, const char16_t *,
                                                                        IO_STATUS_BLOCK *ioStatus,
                                                                        uint8_t **outBuffer)
{
    FODR_TRACE_FUNCTION();
    uint32_t infoClass = request.Body<DR_DRIVE_QUERY_DIRECTORY_REQ>().FsInformationClass;
    ioStatus->Information = 0;
    {
        OVMutexLock held(cacheLock);
        auto cached = allowAccessInfoCache.find(infoClass);
        if (cached != allowAccessInfoCache.end()) {
            MallocBuffer listing = CopyOf(cached->second);
            ioStatus->Information = listing.Size();
            ioStatus->Status = listing ? STATUS_SUCCESS : STATUS_NO_MEMORY;
            LOG_DEBUG("Find cached file info, InfoClass:%d, status:0x%lx.\n", static_cast<int>(infoClass),
                      static_cast<unsigned long>(static_cast<uint32_t>(ioStatus->Status)));
            if (ioStatus->Status == STATUS_SUCCESS)
                lastListedFileId = request.FileId;
            *outBuffer = listing.Release();
            return ioStatus->Status;
        }
    }
    // lastListedFileId stays; meant. The continuation of an uncached listing asks the file system.
    RetrieveAllowAccessListInfo(request, ioStatus, outBuffer);
    return ioStatus->Status;
}

void RedirectedDeviceAccessControl::RetrieveAllowAccessListInfo(const DR_DEVICE_IOREQUEST &request,
                                                                IO_STATUS_BLOCK *ioStatus,
                                                                uint8_t **outBuffer)
{
    FODR_TRACE_FUNCTION();
    uint32_t infoClass = request.Body<DR_DRIVE_QUERY_DIRECTORY_REQ>().FsInformationClass;
    auto entries = allowAccessList->Current();
    if (entries->empty()) {
        ioStatus->Information = 0;
        ioStatus->Status = STATUS_NO_MORE_FILES;
        LOG_ERROR("Allowed access list is empty.\n");
        return;
    }
    std::deque<MallocBuffer> infos;
    size_t total = 0;
    for (const std::string &entry : *entries) {
        MallocBuffer info;
        if (!RetrieveFileInfo(request, allowAccessList->NameOf(entry), ioStatus, &info))
            continue;
        total += info.Size();
        infos.push_back(std::move(info));
    }
    LOG_INFO("Allowed access info length = %d.\n", static_cast<int>(total));
    MallocBuffer listing;
    NTSTATUS status = CombineAccessFileInformation(infoClass, infos, &listing);
    if (listing && entries->size() > 1) { // of one file a listing is one query anyway
        OVMutexLock held(cacheLock);
        if (allowAccessList->Current() == entries)
            CacheAllowAccessListInfo(infoClass, listing);
    }
    DumpTrace("RedirectedDeviceAccessControl::RetrieveAllowAccessListInfo()", listing);
    if (total == 0)
        return; // the last query's status stays
    ioStatus->Status = listing ? STATUS_SUCCESS : status;
    ioStatus->Information = listing.Size();
    *outBuffer = listing.Release();
}

bool RedirectedDeviceAccessControl::RetrieveFileInfo(const DR_DEVICE_IOREQUEST &request,
                                                     const std::string &fileName, IO_STATUS_BLOCK *ioStatus,
                                                     MallocBuffer *info)
{
    FODR_TRACE_FUNCTION();
    auto query = request.Body<DR_DRIVE_QUERY_DIRECTORY_REQ>();
    std::u16string pattern;
    uint8_t *block = nullptr;
    NTSTATUS status = STATUS_OBJECT_NAME_INVALID;
    ioStatus->Information = 0;
    if (Utf8ToUtf16(fileName, pattern)) // else it names nothing
        status = fileSystem->RedirectedQueryDirectoryFile(request.FileId, ioStatus, &block,
                                                          query.FsInformationClass, query.InitialQuery != 0,
                                                          pattern.c_str(), multiEntryDirectoryQuery);
    *info = MallocBuffer(block, block ? static_cast<size_t>(ioStatus->Information) : 0);
    if (status == STATUS_SUCCESS) {
        // A block of kListingAnswer bytes for each of thousands of files would be much memory.
        MallocBuffer exact = multiEntryDirectoryQuery ? CopyOf(*info) : MallocBuffer();
        if (exact)
            *info = std::move(exact);
        LOG_TRACE("Retrieve file info: [%s], size: %d\n", fileName.c_str(), static_cast<int>(info->Size()));
        DumpTrace("RedirectedDeviceAccessControl::RetrieveAllowAccessListInfo()", *info);
        return true;
    }
    ioStatus->Status = status;
    LOG_ERROR("Failed to retrieve dragged file = [%s], fileInfoClass = %d, status = 0x%lx", fileName.c_str(),
              static_cast<int>(query.FsInformationClass),
              static_cast<unsigned long>(static_cast<uint32_t>(status)));
    return false;
}

NTSTATUS RedirectedDeviceAccessControl::CombineAccessFileInformation(uint32_t infoClass,
                                                                     std::deque<MallocBuffer> &entries,
                                                                     MallocBuffer *out) const
{
    FODR_TRACE_FUNCTION();
    size_t total = 0;
    for (const MallocBuffer &entry : entries)
        total += entry.Size();
    if (total == 0 || entries.empty()) {
        LOG_ERROR("Buffer is empty.\n");
        return STATUS_UNSUCCESSFUL;
    }
    *out = MallocBuffer::Allocate(total);
    if (!*out) {
        LOG_ERROR("No memory.\n");
        return STATUS_NO_MEMORY;
    }
    // Packed without alignment. The first of the list comes last, with the offset that its query left.
    for (uint8_t *to = out->Data(); !entries.empty(); entries.pop_back()) {
        MallocBuffer &entry = entries.back();
        if (entries.size() > 1) {
            if (!HasNextEntryOffset(infoClass))
                LOG_ERROR("Wrong file info class(%d)in IRP_MJ_DEVICE_CONTROL.\n",
                          static_cast<int>(infoClass));
            else if (entry.Size() >= sizeof(uint32_t))
                StoreLittle(entry.Data(), static_cast<uint32_t>(entry.Size()));
        }
        memcpy(to, entry.Data(), entry.Size());
        to += entry.Size();
    }
    return STATUS_SUCCESS;
}

void RedirectedDeviceAccessControl::CacheAllowAccessListInfo(uint32_t infoClass, const MallocBuffer &listing)
{
    FODR_TRACE_FUNCTION();
    if (allowAccessInfoCache.contains(infoClass)) {
        LOG_DEBUG("Cached file info already exists. InfoClass:%d.\n", static_cast<int>(infoClass));
        return;
    }
    MallocBuffer copy = CopyOf(listing);
    if (copy)
        allowAccessInfoCache.emplace(infoClass, std::move(copy));
    else
        LOG_ERROR("No memory.\n");
}

} // namespace fodr
