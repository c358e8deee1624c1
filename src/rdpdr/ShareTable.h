// The shares of one connection by their number: which folders become shares, under which name, and how they
// are announced. Any thread. No device is called with the lock held, but for its names and paths.
#pragma once

#include "fileservice/IRedirectedDevice.h"
#include "fileservice/RedirectedDevice.h"
#include "lib/misc/Mutex.h"
#include "platform/Nt.h"
#include "rdpdr/RedirectionSettings.h"
#include "rdpdr/ShareNames.h"
#include "rdpdr/wire/RdpdrStream.h"
#include "runtime/OVMutex.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace fodr {

class ClientPolicy;

class ShareTable {
public:
    using Device = RCPtr<IRedirectedDevice>;

    static constexpr size_t kMostShares = 1024;

    // One add, with what was found out about it before the table is locked.
    struct Request {
        const std::string &path;
        const std::string &cookie;
        uint32_t permission;
        const std::string &shareName;
        SharedType type;
        bool namedFiles; // the share shows only the files of the offer
        std::string ntPath;
        FolderOffer offer;
        nt::ShareRules rules;
    };

    // What a look at the folder has shown. It is taken without the table's lock, since a folder that hangs
    // must not keep the requests of other shares waiting.
    struct Look {
        uint64_t driveEvents = 0;     // when it was taken
        std::vector<Device> compared; // the shares of this path in any case, at that time
        Device present;               // the one among them that is of this very folder
        bool exists = false;          // looked for only where there is none
        bool exact = false;           // and that under its very name
    };

    // What came of it under the lock.
    struct Outcome {
        Device added;         // null: no new share
        bool first = false;   // it made a table of one entry
        bool exists = false;  // its folder does
        bool present = false; // the share is in the table, new or old
        std::vector<std::string> statuses;
    };

    // Null for a number without a share.
    Device FindDevice(uint32_t deviceId) EXCLUDES(deviceTableLock);
    // None for a number without an entry; with `take` the entry goes.
    std::optional<Device> EntryOf(uint32_t deviceId, bool take) EXCLUDES(deviceTableLock);
    size_t Count() EXCLUDES(deviceTableLock);
    // Gives all shares away, for good: none is added from now on.
    std::map<uint32_t, Device> Close() EXCLUDES(deviceTableLock);
    bool IsClosing() EXCLUDES(deviceTableLock);

    Look LookAtFolder(const Request &request) EXCLUDES(deviceTableLock);
    // Nothing when the look is out of date: another share or a drive has come or gone since. The settings
    // lack what this finds out: number, name and whether the folder is there. The policy may be null.
    std::optional<Outcome> InsertShare(const Request &request, const Look &look,
                                       RedirectedDeviceSettings settings, ClientPolicy *agentPolicy)
        EXCLUDES(deviceTableLock);
    // The shares that are no longer in the table, by their numbers.
    std::vector<Device> Remove(const std::string &path, const std::string &ntPath,
                               const std::string &shareName) EXCLUDES(deviceTableLock);
    // For a drive that has come or gone.
    std::vector<Device> DevicesOfDrive(char driveLetter) EXCLUDES(deviceTableLock);

    // The packet that announces a device; `mapped` adds the extension with its path. Null when there is no
    // memory.
    RdpdrStreamPtr BuildDeviceAnnounce(uint32_t deviceId, uint32_t deviceType, uint32_t permission,
                                       const std::string &friendlyName, bool mapped)
        EXCLUDES(deviceTableLock);

private:
    Device Find(uint32_t deviceId) REQUIRES(deviceTableLock);
    std::vector<Device> SharesOfPath(const std::string &ntPath, SharedType type) REQUIRES(deviceTableLock);
    // The name as the agent gets it, and a status when it isn't the wanted one.
    std::string NameShare(const Request &request, std::vector<std::string> *statuses)
        REQUIRES(deviceTableLock);
    std::string GenerateFriendlyName(const std::string &path, const std::string &shareName)
        REQUIRES(deviceTableLock);
    std::vector<Device> SharesToRemove(const std::string &ntPath, const std::string &shareName)
        EXCLUDES(deviceTableLock);
    static bool MatchesRemoval(const IRedirectedDevice &device, const std::string &ntPath,
                               const std::string &shareName);
    uint32_t GetDeviceListAnnounceExtLength(uint32_t deviceId, bool mapped) REQUIRES(deviceTableLock);
    void AppendDeviceListExt(RdpdrStream *stream, uint32_t deviceId, bool mapped) REQUIRES(deviceTableLock);

    std::map<uint32_t, Device> devices GUARDED_BY(deviceTableLock);
    uint32_t nextDeviceId GUARDED_BY(deviceTableLock) = 0xFFFF;
    bool closing GUARDED_BY(deviceTableLock) = false;     // set before the first close
    uint64_t driveEvents GUARDED_BY(deviceTableLock) = 0; // how many drives have come or gone
    OVMutex deviceTableLock;                              // not held across device work
};

} // namespace fodr
