// The agent's policy, as far as its fixed header tells it.
//
// Threads. A block is parsed by one thread at a time; the rest is for any thread. Header fields are read
// without the lock: each is valid for itself.
#pragma once

#include "drives/FodrDeviceFilterPolicy.h"
#include "lib/misc/ByteBuffer.h"
#include "lib/misc/Mutex.h"
#include "rdpdr/PolicyCursor.h"
#include "runtime/OVMutex.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace fodr {

// A folder that the agent names.
struct FodrSharedFolder {
    MallocBuffer folderPath; // two zero bytes behind the path
    uint32_t folderPathLength = 0;
    bool isDriveLetter = false; // "c" or "c:"
    bool isAll = false;         // "*all": every folder, every drive
    uint32_t folderPermission = 0;

    // Null when there is no memory.
    static std::unique_ptr<FodrSharedFolder> Create(const uint8_t *path, uint32_t length,
                                                    uint32_t permission);

    // Up to the first zero byte.
    const char *Path() const { return reinterpret_cast<const char *>(folderPath.Data()); }
    bool Matches(const std::string &path) const;
};

class FodrPolicy : public IDeviceFilter {
public:
    // Kept of shares that there are or were.
    static constexpr size_t kMostPermissions = 65536;

    static constexpr size_t kHeaderLength = 8;

    // Takes the header of a block; false for less than a header.
    bool ParsePolicy(const uint8_t *data, size_t length);

    bool IsAllowedByDeviceFilter(const std::string &deviceInfo) override;
    virtual bool IsFolderInPolicy(const std::string &path);
    bool HasDeviceFilter() override;

    // False, with nothing kept, before a block was taken.
    bool SetDevicePermission(uint32_t deviceId, uint32_t permission) EXCLUDES(lock);
    // 0 for a device without one.
    uint32_t GetDevicePermission(uint32_t deviceId) EXCLUDES(lock);

    bool IsEnabled() const { return enabled; }
    bool IsSharedByAgent() const { return sharedByAgent; }
    uint32_t GetDefaultPermission() const { return defaultPermission; }
    bool HasReadOnlyMark() const { return readOnlyMark; }
    bool HasSecondMark() const { return secondMark; }

protected:
    void ParseHeader(PolicyCursor &cursor);
    void MarkPermission(uint32_t permission);

    OVMutex lock; // innermost
    std::atomic<bool> parsed{false};
    std::atomic<bool> enabled{true};
    std::atomic<bool> sharedByAgent{false};
    std::atomic<uint32_t> defaultPermission{5};
    std::vector<std::unique_ptr<FodrSharedFolder>> folders GUARDED_BY(lock);
    std::string excludeRule GUARDED_BY(lock);
    std::string includeRule GUARDED_BY(lock);
    std::map<uint32_t, uint32_t> devicePermissions GUARDED_BY(lock);
    std::atomic<bool> readOnlyMark{false}; // marks are never cleared
    std::atomic<bool> secondMark{false};
};

} // namespace fodr
