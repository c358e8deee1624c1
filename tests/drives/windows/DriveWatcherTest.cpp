#include "drives/DriveWatcher.h"

#include "drives/FodrDeviceUtils.h"
#include "drives/RecordingSubscriber.h"
#include "platform/windows/Win32.h"

#include <dbt.h>

#include <filesystem>
#include <gtest/gtest.h>
#include <string>

namespace fodr {
namespace {

using test::RecordingSubscriber;

// The hidden window among this process's top-level ones, which the system's broadcasts reach.
HWND FindHiddenWindow()
{
    HWND found = nullptr;
    EnumWindows(
        [](HWND window, LPARAM result) -> BOOL {
            DWORD process = 0;
            wchar_t name[64] = {};
            GetWindowThreadProcessId(window, &process);
            GetClassNameW(window, name, 64);
            if (process != GetCurrentProcessId() || !std::wstring(name).starts_with(L"ATL:"))
                return TRUE;
            *reinterpret_cast<HWND *>(result) = window;
            return FALSE;
        },
        reinterpret_cast<LPARAM>(&found));
    return found;
}

void Broadcast(HWND window, WPARAM event, DWORD type, DWORD mask)
{
    DEV_BROADCAST_VOLUME volume{sizeof(volume), type, 0, mask, 0};
    SendMessageW(window, WM_DEVICECHANGE, event, reinterpret_cast<LPARAM>(&volume));
}

TEST(DriveWatcher, HearsOfVolumesUntilItIsStopped)
{
    RecordingSubscriber subscriber;
    DriveWatcherImpl watcher;
    EXPECT_TRUE(watcher.Stop());
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(watcher.Start(&subscriber));
        const HWND window = FindHiddenWindow();
        if (!window)
            GTEST_SKIP() << "there is no display";
        EXPECT_FALSE(IsWindowVisible(window));
        Broadcast(window, DBT_DEVICEARRIVAL, DBT_DEVTYP_VOLUME, 1U << 25 | 1U << 5 | 1U << 1 | 1U << 26);
        Broadcast(window, DBT_DEVICEQUERYREMOVE, DBT_DEVTYP_VOLUME, 1);
        Broadcast(window, DBT_DEVICEARRIVAL, DBT_DEVTYP_PORT, 1);
        SendMessageW(window, WM_DEVICECHANGE, DBT_DEVNODES_CHANGED, 0);
        Broadcast(window, DBT_DEVICEREMOVECOMPLETE, DBT_DEVTYP_VOLUME, 1U << 5);
        EXPECT_EQ(subscriber.Next(4), "+B+F+Z-F");
        EXPECT_TRUE(subscriber.HeardNothingMore());
        EXPECT_TRUE(watcher.Stop());
        EXPECT_EQ(FindHiddenWindow(), nullptr);
    }
}

TEST(DeviceInfo, OfAFixedDiskIsEmpty)
{
    EXPECT_EQ(FodrDeviceUtils::GetDeviceInfo("C:\\"), "");
    EXPECT_EQ(FodrDeviceUtils::GetDeviceInfo(std::filesystem::temp_directory_path().string()), "");
    EXPECT_EQ(FodrDeviceUtils::GetDeviceInfo("Q:\\nowhere"), "");
}

} // namespace
} // namespace fodr
