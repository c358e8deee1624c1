// What the device tree knows of block devices. Any thread; each call asks afresh.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace fodr::platform {

struct BlockDevice {
    dev_t disk = 0;         // the whole disk; for a mapped device the one below
    uint32_t partition = 0; // 0 for a whole disk
    uint64_t sequence = 0;  // counts the disks that have appeared, so no two share it; 0 from older kernels
    bool isOptical = false;
    bool isRemovable = false; // the medium, or the whole device as on USB
    dev_t usbDevice = 0;      // the USB device that holds it; 0 when none does
};

// None for a device that isn't there.
std::optional<BlockDevice> FindBlockDevice(dev_t device);

// The whole disks that are present.
std::vector<dev_t> ListDisks();

// "USB\VID_0781&PID_5567\4C530001" of a USB device; empty when it isn't there.
std::string InstanceIdOfUsbDevice(dev_t usbDevice);

} // namespace fodr::platform
