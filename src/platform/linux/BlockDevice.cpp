#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/linux/BlockDevice.h"

#include "platform/SystemError.h"
#include "platform/Volumes.h"

#include <libudev.h>

#include <charconv>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string_view>
#include <sys/sysmacros.h>
#include <vector>

namespace fodr::platform {

namespace {

struct Release {
    void operator()(udev *context) const { udev_unref(context); }
    void operator()(udev_device *device) const { udev_device_unref(device); }
    void operator()(udev_enumerate *enumerate) const { udev_enumerate_unref(enumerate); }
};
using Udev = std::unique_ptr<udev, Release>;
using Device = std::unique_ptr<udev_device, Release>;
using Enumerate = std::unique_ptr<udev_enumerate, Release>;

// Mapped devices stand on others; a tree is no deeper than this.
constexpr int kDeepestStack = 8;

std::string Attribute(udev_device *device, const char *name)
{
    const char *value = udev_device_get_sysattr_value(device, name);
    return value ? value : "";
}

uint64_t NumberAttribute(udev_device *device, const char *name)
{
    const std::string text = Attribute(device, name);
    uint64_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

std::optional<BlockDevice> Describe(udev *context, udev_device *device, int depth);

// The first device on USB below a mapped one, or else the first below it at all.
std::optional<BlockDevice> DescribeBelow(udev *context, udev_device *device, int depth)
{
    std::optional<BlockDevice> first;
    std::error_code error;
    const std::filesystem::path folder = std::filesystem::path(udev_device_get_syspath(device)) / "slaves";
    for (const auto &entry : std::filesystem::directory_iterator(folder, error)) {
        const Device below(
            udev_device_new_from_subsystem_sysname(context, "block", entry.path().filename().c_str()));
        const std::optional<BlockDevice> found =
            below ? Describe(context, below.get(), depth + 1) : std::nullopt;
        if (found && found->usbDevice != 0)
            return found;
        if (!first)
            first = found;
    }
    return first;
}

std::optional<BlockDevice> Describe(udev *context, udev_device *device, int depth)
{
    if (depth < kDeepestStack) {
        if (std::optional<BlockDevice> below = DescribeBelow(context, device, depth))
            return below;
    }
    const char *kind = udev_device_get_devtype(device);
    udev_device *disk = kind && std::string_view(kind) == "partition"
                            ? udev_device_get_parent_with_subsystem_devtype(device, "block", "disk")
                            : device;
    if (!disk)
        return std::nullopt;
    BlockDevice found;
    found.disk = udev_device_get_devnum(disk);
    found.partition = static_cast<uint32_t>(disk == device ? 0 : NumberAttribute(device, "partition"));
    found.sequence = NumberAttribute(disk, "diskseq");
    found.isOptical = std::string_view(udev_device_get_sysname(disk)).starts_with("sr");
    udev_device *usb = udev_device_get_parent_with_subsystem_devtype(disk, "usb", "usb_device");
    if (usb)
        found.usbDevice = udev_device_get_devnum(usb);
    found.isRemovable = usb || Attribute(disk, "removable") == "1";
    return found;
}

} // namespace

std::optional<BlockDevice> FindBlockDevice(dev_t device)
{
    const Udev context(udev_new());
    const Device found(context ? udev_device_new_from_devnum(context.get(), 'b', device) : nullptr);
    return found ? Describe(context.get(), found.get(), 0) : std::nullopt;
}

std::vector<dev_t> ListDisks()
{
    std::vector<dev_t> disks;
    const Udev context(udev_new());
    const Enumerate enumerate(context ? udev_enumerate_new(context.get()) : nullptr);
    if (!enumerate || udev_enumerate_add_match_subsystem(enumerate.get(), "block") < 0 ||
        udev_enumerate_scan_devices(enumerate.get()) < 0)
        return disks;
    udev_list_entry *entry = nullptr;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(enumerate.get()))
    {
        const Device device(udev_device_new_from_syspath(context.get(), udev_list_entry_get_name(entry)));
        const char *kind = device ? udev_device_get_devtype(device.get()) : nullptr;
        if (kind && std::string_view(kind) == "disk")
            disks.push_back(udev_device_get_devnum(device.get()));
    }
    return disks;
}

std::string InstanceIdOfUsbDevice(dev_t usbDevice)
{
    const Udev context(udev_new());
    const Device device(context ? udev_device_new_from_devnum(context.get(), 'c', usbDevice) : nullptr);
    if (!device)
        return {};
    std::string serial = Attribute(device.get(), "serial");
    if (serial.empty())
        serial = udev_device_get_sysname(device.get()); // its place on the bus
    std::string id =
        "USB\\VID_" + Attribute(device.get(), "idVendor") + "&PID_" + Attribute(device.get(), "idProduct");
    for (char &c : id)
        c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
    return id + '\\' + serial;
}

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
