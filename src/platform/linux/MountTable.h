// What is mounted, as this process sees it. Any thread; a table doesn't change.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace fodr::platform {

struct Mount {
    uint64_t id;
    dev_t device;       // of the file system; without meaning to udev when its major number is 0
    std::string root;   // what of the file system is mounted
    std::string target; // where
    std::string source;
    std::string type;
};

class MountTable {
public:
    // The table of this moment, read again only after a change. Never null; empty when the system doesn't
    // tell.
    static std::shared_ptr<const MountTable> Current();

    // The mount that holds an existing path, links followed; null when that isn't known.
    const Mount *Holding(const std::string &path) const;
    // The mount on top at exactly this path; null when nothing is mounted there.
    const Mount *At(const std::string &target) const;
    // In the order in which they were mounted.
    const std::vector<Mount> &Mounts() const { return mounts; }

private:
    void Read();

    std::vector<Mount> mounts;
};

// The block device behind a mount; 0 when there is none.
dev_t BlockDeviceOfMount(const Mount &mount);

} // namespace fodr::platform
