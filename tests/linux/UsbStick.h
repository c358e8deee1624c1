// Tests that see a USB stick, 0781:55ab: a fixture's tests run again, in a process of tests/linux/usb-stick.
#pragma once

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/mount.h>
#include <sys/wait.h>

namespace fodr::test {

// Runs the `count` tests that the filter names.
inline void RunWithUsbStick(const std::string &filter, int count)
{
    const std::string program = std::filesystem::read_symlink("/proc/self/exe");
    const std::string command =
        FODR_SOURCE_DIR "/tests/linux/usb-stick '" + program + "' '--gtest_filter=" + filter + "' 2>&1";
    std::FILE *pipe = popen(command.c_str(), "r");
    ASSERT_TRUE(pipe);
    std::string output;
    std::array<char, 4096> piece{};
    while (const size_t length = fread(piece.data(), 1, piece.size(), pipe))
        output.append(piece.data(), length);
    const int status = pclose(pipe);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77)
        GTEST_SKIP() << "no loop device to be had";
    const std::string passed = "[  PASSED  ] " + std::to_string(count) + " test";
    EXPECT_TRUE(status == 0 && output.find(passed) != std::string::npos) << output;
}

// For the fixture: where the stick is, and whether this is the process that sees it.
class UsbStick {
public:
    bool IsThere() const { return !folder.empty(); }
    bool Mount(const std::string &where) const
    {
        return mount(device.c_str(), where.c_str(), "ext4", 0, nullptr) == 0;
    }

    const std::string folder = Variable("FODR_TEST_USB_FOLDER");
    const std::string device = Variable("FODR_TEST_USB_DEVICE");

private:
    static std::string Variable(const char *name)
    {
        const char *value = std::getenv(name);
        return value ? value : "";
    }
};

} // namespace fodr::test
