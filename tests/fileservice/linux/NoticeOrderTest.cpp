// Completions and notices of one share, in the order in which they leave.
#include "fileservice/Share.h"

#include <unistd.h>

#include <algorithm>
#include <future>
#include <thread>

namespace fodr::test {
namespace {

using namespace nt;

class OrderedChannel : public RecordingChannel {
public:
    bool WriteChannel(RdpdrStream *packet) override
    {
        const uint32_t id = LoadLittle<uint32_t>(packet->Base() + 8);
        {
            std::lock_guard held(lock);
            ids.push_back(id);
        }
        return RecordingChannel::WriteChannel(packet);
    }
    // Takes what has left so far.
    std::vector<uint32_t> Left()
    {
        std::lock_guard held(lock);
        return std::exchange(ids, {});
    }

private:
    std::mutex lock;
    std::vector<uint32_t> ids;
};

void WaitUntilAsleep(pid_t thread)
{
    for (char state = 'R'; state != 'S';) {
        const std::string stat = ReadWholeFile("/proc/self/task/" + std::to_string(thread) + "/stat");
        state = stat[stat.rfind(')') + 2];
        std::this_thread::yield();
    }
}

// Watches the root of a share until a change is told. What the process starts for its first watch runs from
// then on, as long as `root` is open.
void WatchOnce(Share &share, File &root)
{
    auto told = std::async(std::launch::async, [&] {
        return root
            .Ask(IRP_MJ_DIRECTORY_CONTROL,
                 DR_DRIVE_NOTIFY_CHANGE_DIRECTORY_REQ{0, FILE_NOTIFY_CHANGE_FILE_NAME}, "",
                 IRP_MN_NOTIFY_CHANGE_DIRECTORY)
            .Status();
    });
    for (int i = 0; told.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready; ++i)
        share.Put("change" + std::to_string(i), "");
    EXPECT_EQ(told.get(), STATUS_NOTIFY_ENUM_DIR);
}

TEST(NoticeOrder, EveryAnswerThatShowsAChangeLeavesBehindItsNotice)
{
    // A thread that starts another sleeps for a moment, which isn't the sleep that is waited for below.
    Share other;
    File watched = other.Create(u"\\");
    WatchOnce(other, watched);
    OrderedChannel channel;
    Share share([&](RedirectedDeviceSettings &settings) { settings.channel = &channel; });
    const auto serve = [&](Bytes packet) {
        EXPECT_TRUE(share.Serve(packet));
        return LoadLittle<uint32_t>(packet.data() + 12);
    };
    share.Put("f", "");
    const auto open = [&](std::u16string_view path, uint32_t options) {
        const std::string text = WireText(path);
        return channel
            .Take(serve(share.Request(
                0, IRP_MJ_CREATE, 0,
                DR_CREATE_REQ{GENERIC_READ, 0, 0, 7, FILE_OPEN, options, static_cast<uint32_t>(text.size())},
                text)))
            .FileId();
    };
    const uint32_t root = open(u"\\", FILE_DIRECTORY_FILE), file = open(u"\\f", 0);
    const Bytes answers[] = {
        share.Request(root, IRP_MJ_DIRECTORY_CONTROL, IRP_MN_QUERY_DIRECTORY,
                      DR_DRIVE_QUERY_DIRECTORY_REQ{FileNamesInformation, 1, 0}),
        share.Request(file, IRP_MJ_READ, 0, DR_READ_REQ{10, 0}),
        share.Request(file, IRP_MJ_QUERY_INFORMATION, 0,
                      DR_DRIVE_QUERY_INFORMATION_REQ{FileStandardInformation}),
    };
    for (uint32_t round = 0; round < 90; ++round) {
        const Bytes notify = share.Request(
            root, IRP_MJ_DIRECTORY_CONTROL, IRP_MN_NOTIFY_CHANGE_DIRECTORY,
            DR_DRIVE_NOTIFY_CHANGE_DIRECTORY_REQ{0, FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_SIZE});
        std::promise<pid_t> thread;
        std::thread waiter([&] {
            thread.set_value(gettid());
            serve(notify);
        });
        share.fileSystem->blocking.Wait();
        WaitUntilAsleep(thread.get_future().get());
        channel.Left();
        if (round % 3 == 0)
            share.Put("new" + std::to_string(round), "");
        else
            std::filesystem::resize_file(share.folder / "f", round);
        Bytes request = answers[round % 3];
        StoreLittle(request.data() + 12, uint32_t{1'000'000} + round);
        const uint32_t answer = serve(request);
        const std::vector<uint32_t> left = channel.Left();
        EXPECT_EQ(left, (std::vector<uint32_t>{LoadLittle<uint32_t>(notify.data() + 12), answer})) << round;
        waiter.join();
    }
}

// Requests, changes, and folders that are closed while they are watched: all of them come to an end.
TEST(NoticeOrder, ClosesAndChangesAtOnceEndEverything)
{
    Share share;
    File file = share.Made("f", "text");
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            while (!done)
                EXPECT_EQ(file.Read(0, 4).Data(), "text");
        });
    }
    threads.emplace_back([&] {
        for (int i = 0; !done; ++i) {
            share.Put("new" + std::to_string(i % 100), "");
            std::filesystem::remove(share.folder / ("new" + std::to_string(i % 100)));
        }
    });
    for (unsigned round = 0; round < 60; ++round) {
        File root = share.Create(u"\\");
        const auto watch = [&] {
            return root
                .Ask(IRP_MJ_DIRECTORY_CONTROL,
                     DR_DRIVE_NOTIFY_CHANGE_DIRECTORY_REQ{round % 2 != 0, FILE_NOTIFY_CHANGE_FILE_NAME}, "",
                     IRP_MN_NOTIFY_CHANGE_DIRECTORY)
                .Status();
        };
        auto watcher = std::async(std::launch::async, [&] {
            NTSTATUS status = watch();
            for (unsigned i = 0; i < round && status == STATUS_NOTIFY_ENUM_DIR; ++i)
                status = watch();
            return status;
        });
        if (round % 4 == 0)
            watcher.wait();
        EXPECT_EQ(root.Close().Status(), STATUS_SUCCESS);
        const NTSTATUS status = watcher.get();
        EXPECT_TRUE(status == STATUS_NOTIFY_ENUM_DIR || status == STATUS_CANCELLED ||
                    status == STATUS_NOTIFY_CLEANUP || status == STATUS_INVALID_HANDLE)
            << std::hex << status;
    }
    done = true;
    for (std::thread &thread : threads)
        thread.join();
}

} // namespace
} // namespace fodr::test
