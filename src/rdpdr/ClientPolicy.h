// The agent's policy.
//
// Threads. A block is parsed by one thread at a time while others ask: they see the folders of the old block
// or those of the new one, and likewise the filter. Header fields are read without the lock: each is valid
// for itself.
#pragma once

#include "drives/FodrDeviceFilterPolicy.h"
#include "lib/misc/ByteBuffer.h"
#include "lib/misc/Mutex.h"
#include "rdpdr/wire/WireLayout.h"
#include "runtime/OVMutex.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace fodr {

// Reads a policy block, which may lie about its lengths: what lies behind the data reads as zeros, and the
// cursor stops at the end.
class PolicyCursor {
public:
    PolicyCursor(const uint8_t *bytes, size_t length) : position(bytes), left(length) {}

    size_t Left() const { return left; }
    // Left() bytes may be read there.
    const uint8_t *Here() const { return position; }

    void Skip(size_t count)
    {
        size_t step = std::min(count, left);
        position += step;
        left -= step;
    }
    uint8_t ReadByte() { return Read<uint8_t>(); }
    uint32_t ReadNumber() { return Read<uint32_t>(); }

    // The next `count` bytes, or what there is of them. This cursor moves behind them.
    PolicyCursor Take(size_t count)
    {
        PolicyCursor part(position, std::min(count, left));
        Skip(count);
        return part;
    }

private:
    template <class T> T Read()
    {
        std::array<uint8_t, sizeof(T)> bytes{};
        if (size_t present = std::min(sizeof(T), left); present > 0)
            memcpy(bytes.data(), position, present);
        Skip(sizeof(T));
        return LoadLittle<T>(bytes.data());
    }

    const uint8_t *position;
    size_t left;
};

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

// The policy as far as its fixed header tells it.
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

// The policy in full: header, folders and device filter.
class ClientPolicy : public FodrPolicy {
public:
    // Entries of a block that are kept, and bytes of the path of each; the marks of all of them count.
    static constexpr size_t kMostFolders = 512;
    static constexpr uint32_t kLongestPath = 65536;

    // Takes a block that says to be of `length` bytes and has `available`; what isn't there counts as zeros
    // in the header and isn't there elsewhere. `version` is the agent's: with 0 only the header counts. A
    // broken list is logged and ends itself alone; false only for less than a header.
    bool ParsePolicy(const uint8_t *data, size_t available, uint32_t length, int32_t version) EXCLUDES(lock);

    bool IsAllowedByDeviceFilter(const std::string &deviceInfo) override EXCLUDES(lock);
    bool IsFolderInPolicy(const std::string &path) override EXCLUDES(lock);
    bool HasDeviceFilter() override { return filterPresent; }

    struct Folder {
        std::string path;
        bool isAll;
        uint32_t permission;
    };
    // In the order of the block.
    std::vector<Folder> Folders() EXCLUDES(lock);

private:
    void ParseFolderPolicy(int32_t version, uint32_t folderLength, PolicyCursor &cursor) EXCLUDES(lock);
    void ParseFolderEntries(PolicyCursor entries) REQUIRES(lock);
    void ParseFilterPolicy(int32_t version, PolicyCursor &cursor) EXCLUDES(lock);
    static void ParseSingleFilterPolicy(PolicyCursor &cursor, std::string &out);

    FodrDeviceFilterPolicy filter GUARDED_BY(lock);
    std::atomic<bool> filterPresent{false}; // spares an open the lock while there is no filter
};

} // namespace fodr
