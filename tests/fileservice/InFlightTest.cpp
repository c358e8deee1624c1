// Requests that block or overlap, and the closes that end them; run under ThreadSanitizer too.
#include "Wine.h"
#include "fileservice/Share.h"

#include <atomic>
#include <future>
#include <gmock/gmock.h>
#include <thread>

namespace fodr::test {
namespace {

using namespace nt;

// Makes the request on a thread of its own. It is about to block when this returns.
template <class Request> std::future<Completion> Begin(Share &share, Request request)
{
    auto answer = std::async(std::launch::async, std::move(request));
    share.fileSystem->blocking.Wait();
    return answer;
}

std::future<Completion> Watch(Share &share, File &directory)
{
    return Begin(share, [&directory] {
        return directory.Ask(IRP_MJ_DIRECTORY_CONTROL,
                             DR_DRIVE_NOTIFY_CHANGE_DIRECTORY_REQ{0, FILE_NOTIFY_CHANGE_FILE_NAME}, "",
                             IRP_MN_NOTIFY_CHANGE_DIRECTORY);
    });
}

Completion LockExclusively(File &file, uint64_t offset, bool failImmediately = true)
{
    return file.Lock(RDP_LOWIO_OP_EXCLUSIVELOCK, {{offset, 10}}, failImmediately);
}

TEST(Notify, TellsThatSomethingChangedAndNotWhat)
{
    Share share;
    File root = share.Create(u"\\");
    std::future<Completion> answer = Watch(share, root);
    // The call may not be watching yet, so changes are made until one is noticed.
    for (int i = 0; answer.wait_for(std::chrono::seconds(0)) != std::future_status::ready; ++i)
        share.Put("new" + std::to_string(i % 1000), "");
    Completion change = answer.get();
    EXPECT_FALSE(IsError(change.Status()));
    EXPECT_EQ(change.Size(), 21u);
    EXPECT_EQ(change.Length(), 0u);
}

TEST(WaitingLock, IsGrantedWhenTheRangeIsFreeAndEndedByAClose)
{
    Share share;
    File one = share.Made("a");
    File two = share.Create(u"\\a");
    LockExclusively(one, 0);
    auto granted = Begin(share, [&] { return LockExclusively(two, 5, false); });
    EXPECT_EQ(one.Lock(RDP_LOWIO_OP_UNLOCK, {{0, 10}}).Status(), STATUS_SUCCESS);
    EXPECT_EQ(granted.get().Status(), STATUS_SUCCESS);
    EXPECT_TRUE(IsError(LockExclusively(one, 0).Status()));

    FODR_SKIP_ON_WINE("a waiting lock can't be cancelled");
    auto ended = Begin(share, [&] { return LockExclusively(one, 0, false); });
    EXPECT_EQ(one.Close().Status(), STATUS_SUCCESS);
    EXPECT_EQ(ended.get().Status(), STATUS_CANCELLED);
}

TEST(Close, EndsABlockedNotificationAndBothAreAnswered)
{
    // Also when the cancel comes before the call that it is meant for.
    for (bool late : {false, true}) {
        Share share;
        share.fileSystem->holdUntilCancelled = late;
        File root = share.Create(u"\\");
        std::future<Completion> answer = Watch(share, root);
        // Nothing is closed when the cancel fails.
        share.fileSystem->cancelFailure = STATUS_UNSUCCESSFUL;
        EXPECT_EQ(root.Close().Status(), STATUS_UNSUCCESSFUL);
        EXPECT_EQ(root.Close().Status(), STATUS_SUCCESS);
        EXPECT_EQ(answer.get().Status(), STATUS_CANCELLED);
    }
}

TEST(Close, DoesNotWaitForARequestThatEndedInAnException)
{
    Share share;
    File root = share.Create(u"\\");
    share.fileSystem->lacksMemory = true;
    EXPECT_THROW(
        share.Serve(share.Request(root.Id(), IRP_MJ_DIRECTORY_CONTROL, IRP_MN_NOTIFY_CHANGE_DIRECTORY,
                                  DR_DRIVE_NOTIFY_CHANGE_DIRECTORY_REQ{0, FILE_NOTIFY_CHANGE_FILE_NAME})),
        std::bad_alloc);
    EXPECT_EQ(root.Close().Status(), STATUS_SUCCESS);
}

TEST(Close, MayBeTriedAgainAfterAFailure)
{
    Share share;
    File file = share.Made("a", "x");
    EXPECT_EQ(share.fileSystem->RedirectedCancelAllIo(file.Id()), STATUS_SUCCESS); // of nothing
    share.fileSystem->closeFailure = STATUS_IO_DEVICE_ERROR;
    EXPECT_EQ(file.Close().Status(), STATUS_IO_DEVICE_ERROR);
    EXPECT_EQ(file.Read(0, 1).Data(), "x"); // still open
    EXPECT_EQ(file.Close().Status(), STATUS_SUCCESS);
    EXPECT_EQ(file.Close().Status(), STATUS_INVALID_HANDLE);

    // A handle that the system doesn't know is given up.
    File lost = share.Create(u"\\a");
    share.fileSystem->closeFailure = STATUS_INVALID_HANDLE;
    EXPECT_EQ(lost.Close().Status(), STATUS_INVALID_HANDLE);
    EXPECT_EQ(lost.Read(0, 1).Status(), STATUS_INVALID_HANDLE);
    share.fileSystem->RedirectedCloseFile(lost.Id());
}

TEST(CloseAllFiles, ClosesEverythingWithoutCompletions)
{
    Share share;
    share.Put("a", "");
    File root = share.Create(u"\\");
    // Nobody else may open it, so that the open below tells whether it was closed.
    File file = share.Create(u"\\a", {.share = 0});
    File stubborn = share.Made("b");
    std::future<Completion> answer = Watch(share, root);
    share.fileSystem->closeFailure = STATUS_IO_DEVICE_ERROR; // of the first close, that of the lowest id
    share.device->CloseAllFiles();
    EXPECT_EQ(answer.get().Status(), STATUS_CANCELLED);
    EXPECT_EQ(share.channel.Untaken(), 0u);
    EXPECT_FALSE(share.device->IsAvailable());
    EXPECT_EQ(file.Read(0, 1).Status(), STATUS_DEVICE_REMOVED);
    share.device->SetAvailable(true);
    uint32_t lowest = std::min({root.Id(), file.Id(), stubborn.Id()});
    for (File *each : {&root, &file, &stubborn})
        EXPECT_EQ(each->Close().Status(), each->Id() == lowest ? STATUS_SUCCESS : STATUS_INVALID_HANDLE);
    EXPECT_EQ(share.Create(u"\\a").created.Status(), STATUS_SUCCESS);
}

// A create that was under way when the share went finds nobody to close its file.
TEST(Retire, ClosesAsWellAndLetsNoFileBeOpenedLater)
{
    Share share;
    share.Put("a", "");
    File root = share.Create(u"\\");
    std::future<Completion> answer = Watch(share, root);
    share.device->Retire();
    EXPECT_EQ(answer.get().Status(), STATUS_CANCELLED);
    share.device->SetAvailable(true); // as a create has seen it before
    for (int n = 0; n < 2; ++n)       // the first is closed again: it would keep the second out
        EXPECT_EQ(share.Open(u"\\a", {.share = 0}), STATUS_DEVICE_REMOVED);
}

// Requests on one file move their own bytes. Where they meet a close they are answered too, as on a closed
// file, and the close waits for those in flight.
TEST(ConcurrentRequests, AreAllAnsweredAlsoWhenTheyMeetAClose)
{
    constexpr uint32_t kThreads = 6;
    const auto closed = testing::AnyOf(STATUS_INVALID_HANDLE, STATUS_DEVICE_REMOVED, STATUS_CANCELLED);
    Share share;
    for (uint32_t round = 0; round < 60; ++round) {
        File file = share.Made("a");
        std::atomic<uint32_t> begun{0};
        auto moveBytes = [&](uint32_t number) {
            ++begun;
            for (uint32_t i = 0; i < 20; ++i) {
                std::string text = std::to_string(1000 + number * 100 + i);
                file.Write(number * 16, text);
                Completion read = file.Read(number * 16, 4);
                if (read.Status() == STATUS_SUCCESS || round % 3 == 0)
                    EXPECT_EQ(read.Data(), text);
                else
                    EXPECT_THAT(read.Status(), closed);
            }
        };
        std::vector<std::thread> threads;
        for (uint32_t number = 0; number < kThreads; ++number)
            threads.emplace_back(moveBytes, number);
        while (begun < kThreads)
            std::this_thread::yield();
        if (round % 3 == 1) {
            EXPECT_EQ(file.Close().Status(), STATUS_SUCCESS);
        } else if (round % 3 == 2)
            share.device->CloseAllFiles();
        for (std::thread &thread : threads)
            thread.join();
        share.device->SetAvailable(true);
        EXPECT_EQ(file.Close().Status(), round % 3 == 0 ? STATUS_SUCCESS : STATUS_INVALID_HANDLE);
    }
    EXPECT_EQ(share.channel.Untaken(), 0u);
}

} // namespace
} // namespace fodr::test
