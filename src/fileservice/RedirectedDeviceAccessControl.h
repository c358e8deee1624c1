// A drag-and-drop or copy-paste share: the agent sees the named files of the folder and nothing else.
//
// What isn't on the list can't be opened, and the root's listing is made up of the list's files. Files may be
// added at any time, also while a listing is under way: that one is of the list as it began.
#pragma once

#include "fileservice/AllowAccessList.h"
#include "fileservice/RedirectedDevice.h"

#include <deque>

namespace fodr {

class RedirectedDeviceAccessControl : public RedirectedDevice {
public:
    // The file system is an AllowListFileSystem on the same list.
    RedirectedDeviceAccessControl(std::unique_ptr<IFileSystem> files, RedirectedDeviceSettings settings,
                                  std::shared_ptr<AllowAccessList> allowList);
    ~RedirectedDeviceAccessControl() override;

    void UpdateAllowAccessFileList(const std::vector<std::string> &names) override EXCLUDES(cacheLock);
    bool CheckCreateDriveAccess(const std::string &absolutePath) override;
    nt::NTSTATUS QueryDirectory(const DR_DEVICE_IOREQUEST &request, const char16_t *fullPath,
                                const char16_t *pattern, nt::IO_STATUS_BLOCK *ioStatus,
                                uint8_t **outBuffer) override EXCLUDES(cacheLock);
    // The root's listing, whole: from the cache if this class is there, else from
    // RetrieveAllowAccessListInfo.
    virtual nt::NTSTATUS GetAllowAccessListInfoFromCache(const DR_DEVICE_IOREQUEST &request,
                                                         const char16_t *fullPath, const char16_t *pattern,
                                                         nt::IO_STATUS_BLOCK *ioStatus, uint8_t **outBuffer)
        EXCLUDES(cacheLock);

private:
    // Streams that may be opened on any path of the share.
    bool IsBypassedFileType(const std::string &absolutePath) const;
    bool IsAllowedAccess(const std::string &absolutePath) const;
    // Asks the open root for each file by name and joins what comes. The outcome is in `*ioStatus`.
    void RetrieveAllowAccessListInfo(const DR_DEVICE_IOREQUEST &request, nt::IO_STATUS_BLOCK *ioStatus,
                                     uint8_t **outBuffer) EXCLUDES(cacheLock);
    // False for a file that can't be listed.
    bool RetrieveFileInfo(const DR_DEVICE_IOREQUEST &request, const std::string &fileName,
                          nt::IO_STATUS_BLOCK *ioStatus, MallocBuffer *info);
    // Chains the entries, the last first, and takes them.
    nt::NTSTATUS CombineAccessFileInformation(uint32_t infoClass, std::deque<MallocBuffer> &entries,
                                              MallocBuffer *out) const;
    void CacheAllowAccessListInfo(uint32_t infoClass, const MallocBuffer &listing) REQUIRES(cacheLock);

    const std::shared_ptr<AllowAccessList> allowAccessList;
    OVMutex cacheLock; // before the list's own
    std::map<uint32_t, MallocBuffer> allowAccessInfoCache GUARDED_BY(cacheLock);
    // The handle whose listing was last answered from the cache, until its continuation has been, too.
    uint32_t lastListedFileId GUARDED_BY(cacheLock) = 0;
};

} // namespace fodr
