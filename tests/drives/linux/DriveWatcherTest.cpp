#include "RealMount.h"
#include "drives/DriveWatcherImpl.h"
#include "drives/RecordingSubscriber.h"
#include "runtime/CapturedLog.h"

#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <vector>

namespace fodr {
namespace {

using test::EnvironmentVariable;
using test::RecordingSubscriber;
using test::ScratchFolder;
using test::TmpfsMount;

TEST(DriveWatcher, TellsDrivesThatComeAndGoInOrder)
{
    FODR_NEEDS_MOUNTS();
    const ScratchFolder scratch;
    const std::string first = scratch.MakeFolder("first");
    const std::string second = scratch / "second"; // isn't there, so no drive is
    const std::string drives = "Z=" + second + ";F=" + second + ";B=" + first;
    const EnvironmentVariable variable("FODR_DRIVES", drives.c_str());
    for (const bool succeeds : {true, false}) {
        RecordingSubscriber subscriber(succeeds);
        CapturedLog log(LOG_LEVEL_DEBUG);
        DriveWatcherImpl watcher;
        ASSERT_TRUE(watcher.Start(&subscriber));
        {
            TmpfsMount bystander(scratch.MakeFolder("other"));
            scratch.MakeFolder("second");
            TmpfsMount both(second);
            EXPECT_EQ(subscriber.Await(2), "+F+Z");
            TmpfsMount on(first); // the folder was a drive before
            EXPECT_EQ(subscriber.Await(4), "+F+Z-B+B");
            on.Unmount();
            EXPECT_EQ(subscriber.Await(5), "+F+Z-B+B-B");
        }
        EXPECT_EQ(subscriber.Await(7), "+F+Z-B+B-B-F-Z");
        EXPECT_TRUE(watcher.Stop());
        std::filesystem::remove(second);

        size_t complaints = 0;
        for (const std::string &line : CapturedLog::Lines())
            complaints += line.find("Subscriber failed to process drive") != std::string::npos;
        EXPECT_EQ(complaints, succeeds ? 0U : 7U);
    }
}

TEST(DriveWatcher, HearsNothingAfterStopAndMayStartAgain)
{
    FODR_NEEDS_MOUNTS();
    const ScratchFolder scratch;
    const std::string folder = scratch / "drive";
    const EnvironmentVariable variable("FODR_DRIVES", ("D=" + folder).c_str());
    RecordingSubscriber before;
    RecordingSubscriber after;
    DriveWatcherImpl watcher;
    EXPECT_TRUE(watcher.Stop());
    EXPECT_FALSE(watcher.Start(nullptr));
    EXPECT_TRUE(watcher.Start(&before));
    EXPECT_TRUE(watcher.Start(&after)); // keeps the first
    EXPECT_TRUE(watcher.Stop());
    scratch.MakeFolder("drive");
    {
        TmpfsMount unheard(folder);
    }
    std::filesystem::remove(folder);
    EXPECT_TRUE(watcher.Start(&after));
    scratch.MakeFolder("drive");
    TmpfsMount drive(folder);
    EXPECT_EQ(after.Await(1), "+D");
    EXPECT_TRUE(watcher.Stop());
    EXPECT_EQ(before.Text(), "");
}

TEST(DriveWatcher, AWatcherThatCannotListenStartsAndDoesNotStop)
{
    RecordingSubscriber subscriber;
    CapturedLog log(LOG_LEVEL_DEBUG);
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    {
        DriveWatcherImpl watcher(10);
        const rlimit noMore{2, files.rlim_max};
        setrlimit(RLIMIT_NOFILE, &noMore);
        const bool started = watcher.Start(&subscriber);
        setrlimit(RLIMIT_NOFILE, &files);
        ASSERT_TRUE(started);
        EXPECT_FALSE(watcher.Stop());
        EXPECT_FALSE(watcher.Stop());
        EXPECT_TRUE(watcher.Start(&subscriber));
    }
    const std::vector<std::string> lines = CapturedLog::Lines();
    ASSERT_GE(lines.size(), 5U);
    EXPECT_EQ(lines[0], "E HiddenDriveWatcherWindow::MessageLoopThread(): Failed to create window\n");
    EXPECT_EQ(lines[1], "D DriveWatcherImpl::Start(): Drive watcher started\n");
    EXPECT_EQ(lines[2], "E DriveWatcherImpl::Stop(): Wait timed out\n");
    EXPECT_EQ(lines[3], "E DriveWatcherImpl::Stop(): Wait timed out\n");
    EXPECT_EQ(lines[4], "W DriveWatcherImpl::Start(): Duplicate start request: already started\n");
}

TEST(DriveWatcher, OnlyTheLowest26BitsAreLetters)
{
    const struct {
        uint32_t mask;
        const char *calls;
    } rows[] = {{0, ""}, {0x8000005, "A C"}, {0xFE000001, "A Z"}, {0xFC000000, ""}};
    for (const auto &row : rows) {
        RecordingSubscriber subscriber;
        RCPtr<HiddenDriveWatcherWindow> window(new HiddenDriveWatcherWindow);
        window->OnVolumesArrived(row.mask); // nobody to tell
        window->subscriber = &subscriber;
        window->OnVolumesArrived(row.mask);
        window->OnVolumesRemoved(row.mask);
        window->OnClose();
        window->OnVolumesArrived(row.mask);
        std::string expected;
        for (const char sign : {'+', '-'}) {
            for (const char *c = row.calls; *c; ++c) {
                if (*c != ' ')
                    expected += {sign, *c};
            }
        }
        EXPECT_EQ(subscriber.Text(), expected) << row.mask;
    }
}

} // namespace
} // namespace fodr
