// The agent's policy in full: header, folders and device filter.
//
// Threads. A block is parsed by one thread at a time while others ask: they see the folders of the old block
// or those of the new one, and likewise the filter.
#pragma once

#include "drives/FodrDeviceFilterPolicy.h"
#include "lib/misc/Mutex.h"
#include "rdpdr/FodrPolicy.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace fodr {

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
