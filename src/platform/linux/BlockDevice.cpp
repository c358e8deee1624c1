#include "platform/linux/BlockDevice.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include <libudev.h>

#include <charconv>
#include <filesystem>
#include <memory>
#include <string_view>

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

} // namespace fodr::platform
