#include "platform/Volumes.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/SystemError.h"
#include "platform/linux/BlockDevice.h"

#include <cstdio>
#include <optional>
#include <sys/sysmacros.h>
#include <vector>

namespace fodr::platform {

namespace {

// One number for each device: 12 bits of major number, which no block device has more than 11 of, and 20 of
// minor number. The highest bit tells USB devices from block devices.
constexpr uint32_t kUsbInstance = 0x80000000;

bool FitsNumber(dev_t device)
{
    return major(device) < 2048 && minor(device) < 1U << 20;
}

uint32_t NumberOf(dev_t device)
{
    return static_cast<uint32_t>(major(device) << 20 | minor(device));
}

dev_t DeviceOf(uint32_t number)
{
    return makedev(number >> 20 & 2047, number & ((1U << 20) - 1));
}

} // namespace

struct StorageDevice::State {
    BlockDevice device;
};

StorageDevice::StorageDevice() = default;
StorageDevice::~StorageDevice() = default;

uint32_t StorageDevice::Open(const std::u16string &devicePath)
{
    const std::string path(devicePath.begin(), devicePath.end());
    unsigned int majorNumber = 0;
    unsigned int minorNumber = 0;
    unsigned long long sequence = 0;
    const int fields =
        std::sscanf(path.c_str(), "/dev/block/%u:%u#%llu", &majorNumber, &minorNumber, &sequence);
    if (fields < 2)
        return kErrorInvalidName;
    const std::optional<BlockDevice> found = FindBlockDevice(makedev(majorNumber, minorNumber));
    if (!found || (fields == 3 && found->sequence != sequence))
        return kErrorFileNotFound; // or another one by now
    state.reset(new State{*found});
    return kErrorSuccess;
}

uint32_t StorageDevice::QueryBusType(uint32_t &busType)
{
    if (!state)
        return kErrorInvalidHandle;
    busType = state->device.usbDevice != 0 ? kBusTypeUsb : kBusTypeUnknown;
    return kErrorSuccess;
}

uint32_t StorageDevice::QueryNumber(StorageDeviceNumber &number)
{
    if (!state)
        return kErrorInvalidHandle;
    if (!FitsNumber(state->device.disk))
        return kErrorNotSupported;
    number = {state->device.isOptical ? kDeviceTypeCdRom : kDeviceTypeDisk, NumberOf(state->device.disk),
              state->device.partition};
    return kErrorSuccess;
}

struct StorageDeviceList::State {
    std::vector<dev_t> disks;
};

StorageDeviceList::StorageDeviceList() = default;
StorageDeviceList::~StorageDeviceList() = default;

uint32_t StorageDeviceList::Open(uint32_t deviceType)
{
    state = std::make_unique<State>();
    for (const dev_t disk : ListDisks()) {
        const std::optional<BlockDevice> found = FindBlockDevice(disk);
        const bool isWanted = found && found->isOptical == (deviceType == kDeviceTypeCdRom);
        if (isWanted && found->disk == disk && FitsNumber(disk))
            state->disks.push_back(disk);
    }
    return kErrorSuccess;
}

bool StorageDeviceList::HasEntry(uint32_t index)
{
    return state && index < state->disks.size();
}

uint32_t StorageDeviceList::QueryDetailSize(uint32_t index, uint32_t &size)
{
    size = 0;
    return HasEntry(index) ? kErrorInsufficientBuffer : kErrorNoMoreItems;
}

uint32_t StorageDeviceList::QueryDetail(uint32_t index, uint32_t, std::u16string &devicePath,
                                        uint32_t &instance)
{
    if (!HasEntry(index))
        return kErrorNoMoreItems;
    const dev_t disk = state->disks[index];
    const std::string path = "/dev/block/" + std::to_string(major(disk)) + ':' + std::to_string(minor(disk));
    devicePath.assign(path.begin(), path.end());
    instance = NumberOf(disk);
    return kErrorSuccess;
}

bool ParentOfDeviceInstance(uint32_t instance, uint32_t &parent)
{
    const std::optional<BlockDevice> disk =
        instance & kUsbInstance ? std::nullopt : FindBlockDevice(DeviceOf(instance));
    if (!disk || disk->usbDevice == 0 || !FitsNumber(disk->usbDevice))
        return false;
    parent = NumberOf(disk->usbDevice) | kUsbInstance;
    return true;
}

bool IdOfDeviceInstance(uint32_t instance, std::string &id)
{
    if (!(instance & kUsbInstance))
        return false;
    id = InstanceIdOfUsbDevice(DeviceOf(instance));
    return !id.empty();
}

} // namespace fodr::platform
