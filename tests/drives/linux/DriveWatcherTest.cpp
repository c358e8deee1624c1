#include "drives/DriveWatcher.h"

#include "RealMount.h"
#include "drives/RecordingSubscriber.h"
#include "runtime/CapturedLog.h"

#include <atomic>
#include <future>
#include <gmock/gmock.h>
#include <string>
#include <sys/resource.h>
#include <thread>
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
        CapturedLog log(LOG_LEVEL_ERROR);
        DriveWatcherImpl watcher;
        ASSERT_TRUE(watcher.Start(&subscriber));
        {
            scratch.MakeFolder("second");
            TmpfsMount both(second);
            EXPECT_EQ(subscriber.Next(2), "+F+Z");
            TmpfsMount bystander(scratch.MakeFolder("other"));
            TmpfsMount on(first);
            // The folder alone was a drive until then. Now that it has a medium it isn't one without.
            EXPECT_EQ(subscriber.Next(succeeds ? 2 : 1), succeeds ? "-B+B" : "+B");
            on.Unmount();
            EXPECT_EQ(subscriber.Next(1), "-B");
        }
        EXPECT_EQ(subscriber.Next(2), "-F-Z");
        EXPECT_TRUE(watcher.Stop());
        EXPECT_TRUE(subscriber.HeardNothingMore());
        std::filesystem::remove(second);

        std::string signs; // of the calls that were complained about
        for (const std::string &line : CapturedLog::Lines())
            signs += line.ends_with("(): Subscriber failed to process drive addition\n")  ? '+'
                     : line.ends_with("(): Subscriber failed to process drive removal\n") ? '-'
                                                                                          : '?';
        EXPECT_EQ(signs, succeeds ? "" : "+++---");
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
    EXPECT_EQ(after.Next(1), "+D");
    EXPECT_TRUE(watcher.Stop());
    EXPECT_TRUE(before.HeardNothingMore());
}

TEST(DriveWatcher, AWatcherThatCannotListenStartsAndDoesNotStop)
{
    RecordingSubscriber subscriber;
    {
        // A sanitizer wants a pipe for the first look at an object of a class.
        DriveWatcherImpl usual;
        EXPECT_TRUE(usual.Start(&subscriber) && usual.Stop());
    }
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
    std::vector<std::string> lines = CapturedLog::Lines();
    lines.resize(5); // what the thread says at its end may come behind
    EXPECT_THAT(lines, testing::ElementsAre(
                           "E HiddenDriveWatcherWindow::MessageLoopThread(): Failed to create window\n",
                           "D DriveWatcherImpl::Start(): Drive watcher started\n",
                           "E DriveWatcherImpl::Stop(): Wait timed out\n",
                           "E DriveWatcherImpl::Stop(): Wait timed out\n",
                           "W DriveWatcherImpl::Start(): Duplicate start request: already started\n"));
}

TEST(DriveWatcher, OnlyTheLowest26BitsAreLetters)
{
    RecordingSubscriber subscriber;
    RCPtr<HiddenDriveWatcherWindow> window(new HiddenDriveWatcherWindow);
    window->OnVolumesArrived(1); // nobody to tell
    window->Attach(&subscriber);
    for (const uint32_t none : {0U, 0xFC000000U})
        window->OnVolumesArrived(none);
    window->OnVolumesArrived(0xFE000001);
    window->OnVolumesRemoved(0x8000005);
    EXPECT_EQ(subscriber.Next(4), "+A+Z-A-C");
    window->OnClose();
    window->OnVolumesRemoved(1);
    EXPECT_TRUE(subscriber.HeardNothingMore());
}

TEST(DriveWatcher, ASubscriberThatIsDetachedIsNeitherInACallNorCalledAgain)
{
    struct SlowSubscriber : RecordingSubscriber {
        bool OnDeviceAvailable(char driveLetter) override
        {
            entered.set_value();
            leave.get_future().wait();
            left = true;
            return RecordingSubscriber::OnDeviceAvailable(driveLetter);
        }
        std::promise<void> entered, leave;
        std::atomic<bool> left{false};
    } subscriber;
    RCPtr<HiddenDriveWatcherWindow> window(new HiddenDriveWatcherWindow);
    window->Attach(&subscriber);
    std::thread events([window] {
        window->OnVolumesArrived(1);
        window->OnVolumesRemoved(1);
    });
    subscriber.entered.get_future().wait();
    std::thread opener([&subscriber] { subscriber.leave.set_value(); });
    window->Detach();
    EXPECT_TRUE(subscriber.left);
    opener.join();
    events.join();
    subscriber.Next(1);
    window->OnVolumesArrived(2);
    while (!subscriber.HeardNothingMore()) // the removal may have come before Detach had the lock
        EXPECT_EQ(subscriber.Next(1), "-A");
}

} // namespace
} // namespace fodr
