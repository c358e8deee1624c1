// A real file system on a loop device that a mocked /sys shows as a partition of a USB stick.
//
// The mock (umockdev) is preloaded, so what looks at the stick runs in a second instance of the test program.
#pragma once

#include "RealMount.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <utility>

namespace fodr::test {

class UsbStick {
public:
    static constexpr const char *kFolderVariable = "FODR_TEST_USB_FOLDER";
    static constexpr const char *kDeviceVariable = "FODR_TEST_USB_DEVICE";
    static constexpr unsigned int kDiskMajor = 230;
    static constexpr unsigned int kMappedMajor = 231; // a mapped device on the stick

    UsbStick()
    {
        mountPoint = scratch.MakeFolder("stick");
        const std::string image = scratch / "image";
        std::ofstream(image).close();
        std::filesystem::resize_file(image, 2 << 20);
        if (!Run("mkfs.ext4 -q " + image) ||
            !Run("losetup --find --show " + image + " > " + (scratch / "name")))
            return;
        std::getline(std::ifstream(scratch / "name"), loop);
        isMounted = mount(loop.c_str(), mountPoint.c_str(), "ext4", 0, nullptr) == 0;
        if (isMounted)
            WriteDevices();
    }
    ~UsbStick()
    {
        if (isMounted)
            umount2(mountPoint.c_str(), MNT_DETACH);
        if (!loop.empty())
            Run("losetup --detach " + loop);
    }

    bool IsMounted() const { return isMounted; }

    // Runs the tests that match in a process that sees the stick. True when they passed.
    bool RunTests(const std::string &filter) const
    {
        const std::string program = std::filesystem::read_symlink("/proc/self/exe");
        // A sanitizer's runtime wants to be loaded before anything else.
        const std::string command =
            "sanitizer=$(ldd '" + program + "' | grep -oE '/[^ ]*/lib(asan|tsan)[^ ]*' | head -n 1); " +
            "ASAN_OPTIONS=verify_asan_link_order=0:$ASAN_OPTIONS " +
            "LD_PRELOAD=\"$sanitizer libumockdev-preload.so.0\" UMOCKDEV_DIR='" + (scratch / "mock") + "' " +
            kFolderVariable + "='" + mountPoint + "' " + kDeviceVariable + "='" + loop + "' '" + program +
            "' --gtest_filter='" + filter + "' > '" + (scratch / "output") + "' 2>&1";
        const bool passed = Run(command);
        output = Read(scratch / "output");
        return passed;
    }
    const std::string &Output() const { return output; }

private:
    using Attributes = std::initializer_list<std::pair<const char *, std::string>>;

    static bool Run(const std::string &command) { return std::system(command.c_str()) == 0; }
    static std::string Read(const std::string &path)
    {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    // A device folder below sys/devices with its links, as the kernel makes them.
    void AddDevice(const std::string &path, const std::string &subsystem, const std::string &kind,
                   unsigned int majorNumber, unsigned int minorNumber, Attributes attributes) const
    {
        const std::filesystem::path sys = scratch / "mock/sys";
        const std::filesystem::path device = sys / "devices" / path;
        const std::string name = device.filename();
        const std::string number = std::to_string(majorNumber) + ":" + std::to_string(minorNumber);
        const bool isBlock = subsystem == "block";
        const std::filesystem::path ofSubsystem = isBlock ? "class/block" : "bus/usb/devices";
        std::filesystem::create_directories(device);
        std::filesystem::create_directories(sys / ofSubsystem);
        std::filesystem::create_directories(sys / "dev" / (isBlock ? "block" : "char"));
        std::ofstream(device / "uevent") << "MAJOR=" << majorNumber << "\nMINOR=" << minorNumber
                                         << "\nDEVNAME=" << name << "\nDEVTYPE=" << kind << "\n";
        std::ofstream(device / "dev") << number << "\n";
        for (const auto &[attribute, value] : attributes)
            std::ofstream(device / attribute) << value << "\n";
        Link(isBlock ? sys / "class/block" : sys / "bus/usb", device / "subsystem");
        Link(device, sys / ofSubsystem / name);
        Link(device, sys / "dev" / (isBlock ? "block" : "char") / number);
    }
    static void Link(const std::filesystem::path &target, const std::filesystem::path &link)
    {
        std::filesystem::create_symlink(std::filesystem::relative(target, link.parent_path()), link);
    }

    void WriteDevices() const
    {
        struct stat facts {};
        stat(mountPoint.c_str(), &facts);
        const std::string usb = "pci0000:00/usb1/1-1";
        const std::string disk = usb + "/1-1:1.0/host6/target6:0:0/6:0:0:0/block/sdz";
        AddDevice(usb, "usb", "usb_device", 189, 5,
                  {{"idVendor", "0781"}, {"idProduct", "55ab"}, {"serial", "4C530001"}});
        AddDevice("pci0000:00/ata1/block/sda", "block", "disk", kDiskMajor, 0,
                  {{"removable", "0"}, {"diskseq", "3"}});
        AddDevice(disk, "block", "disk", kDiskMajor, 16, {{"removable", "1"}, {"diskseq", "9"}});
        AddDevice(disk + "/sdz1", "block", "partition", major(facts.st_dev), minor(facts.st_dev),
                  {{"partition", "1"}});
        const std::string mapped = "virtual/block/dm-0";
        AddDevice(mapped, "block", "disk", kMappedMajor, 0, {{"removable", "0"}, {"diskseq", "10"}});
        const std::filesystem::path devices = scratch / "mock/sys/devices";
        std::filesystem::create_directories(devices / mapped / "slaves");
        Link(devices / disk / "sdz1", devices / mapped / "slaves/sdz1");
    }

    const ScratchFolder scratch;
    std::string mountPoint;
    std::string loop;
    bool isMounted = false;
    mutable std::string output;
};

} // namespace fodr::test
