// Closing: what is in flight on a file is ended first.
#include "Wine.h"
#include "fileservice/Share.h"

#include <atomic>
#include <thread>

namespace fodr::test {
namespace {

using namespace nt;

Bytes Watch(Share &share, const File &directory)
{
    return share.Request(directory.Id(), IRP_MJ_DIRECTORY_CONTROL, IRP_MN_NOTIFY_CHANGE_DIRECTORY,
                         DR_DRIVE_NOTIFY_CHANGE_DIRECTORY_REQ{0, FILE_NOTIFY_CHANGE_FILE_NAME});
}

TEST(Close, AnswersAnUnknownFileAndForgetsAClosedOne)
{
    Share share;
    share.Put("a", "");
    File file = share.Create(u"\\a");
    EXPECT_EQ(file.Close().Status(), STATUS_SUCCESS);
    EXPECT_EQ(file.Close().Status(), STATUS_INVALID_HANDLE);
    EXPECT_EQ(file.Read(0, 1).Status(), STATUS_INVALID_HANDLE);
}

TEST(Dispatch, DropsUnknownMajorsInSilenceOnOpenFilesAlone)
{
    Share share;
    share.Put("a", "");
    File file = share.Create(u"\\a");
    for (uint32_t major : {1u, 7u, 13u, 18u, 0xFFFFFFFFu}) {
        EXPECT_FALSE(share.Serve(share.Request(file.Id(), major, 0, DR_READ_REQ{}))) << major;
        EXPECT_EQ(share.channel.Untaken(), 0u);
        // The lookup comes first.
        EXPECT_EQ(share.Ask(share.Request(file.Id() + 4000, major, 0, DR_READ_REQ{})).Status(),
                  STATUS_INVALID_HANDLE);
    }
    // None of them is left in flight, which would hold up the close.
    EXPECT_EQ(file.Close().Status(), STATUS_SUCCESS);
}

TEST(Notify, TellsThatSomethingChangedAndNotWhat)
{
    Share share;
    File root = share.Create(u"\\");
    Bytes request = Watch(share, root);
    std::atomic<bool> told{false};
    std::thread waiting([&] {
        Completion change = share.Ask(request);
        EXPECT_FALSE(IsError(change.Status()));
        EXPECT_EQ(change.Size(), 21u);
        EXPECT_EQ(change.Length(), 0u);
        told = true;
    });
    share.fileSystem->AwaitBlockingCalls(1);
    // The call may not be watching yet, so changes are made until one is noticed.
    for (int i = 0; !told; ++i)
        share.Put("new" + std::to_string(i % 1000), "");
    waiting.join();
}

TEST(Close, EndsABlockedNotificationAndBothAreAnswered)
{
    // Also when the cancel comes before the call that it is meant for.
    for (bool late : {false, true}) {
        Share share;
        share.fileSystem->holdUntilCancelled = late;
        File root = share.Create(u"\\");
        Bytes request = Watch(share, root);
        std::thread waiting([&] { EXPECT_EQ(share.Ask(request).Status(), STATUS_CANCELLED); });
        share.fileSystem->AwaitBlockingCalls(1);
        EXPECT_EQ(root.Close().Status(), STATUS_SUCCESS);
        waiting.join();
    }
}

TEST(Close, EndsAWaitingLock)
{
    FODR_SKIP_ON_WINE("a waiting lock can't be cancelled");
    Share share;
    share.Put("a", "");
    File holder = share.Create(u"\\a");
    File waiter = share.Create(u"\\a");
    holder.Lock(RDP_LOWIO_OP_EXCLUSIVELOCK, {{0, 10}});
    std::thread waiting([&] {
        EXPECT_EQ(waiter.Lock(RDP_LOWIO_OP_EXCLUSIVELOCK, {{0, 10}}, false).Status(), STATUS_CANCELLED);
    });
    share.fileSystem->AwaitBlockingCalls(1);
    EXPECT_EQ(waiter.Close().Status(), STATUS_SUCCESS);
    waiting.join();
    EXPECT_EQ(holder.Lock(RDP_LOWIO_OP_UNLOCK, {{0, 10}}).Status(), STATUS_SUCCESS);
}

TEST(Close, MayBeTriedAgainAfterAFailure)
{
    Share share;
    share.Put("a", "x");
    File file = share.Create(u"\\a");
    share.fileSystem->closeFailure = STATUS_IO_DEVICE_ERROR;
    EXPECT_EQ(file.Close().Status(), STATUS_IO_DEVICE_ERROR);
    EXPECT_EQ(file.Read(0, 1).Data(), "x"); // still open
    EXPECT_EQ(file.Close().Status(), STATUS_SUCCESS);

    // A handle that the system doesn't know is given up.
    File lost = share.Create(u"\\a");
    share.fileSystem->closeFailure = STATUS_INVALID_HANDLE;
    EXPECT_EQ(lost.Close().Status(), STATUS_INVALID_HANDLE);
    EXPECT_EQ(lost.Read(0, 1).Status(), STATUS_INVALID_HANDLE);
    share.fileSystem->RedirectedCloseFile(lost.Id());
}

TEST(Close, IsNotTriedWhenTheCancelFails)
{
    Share share;
    File root = share.Create(u"\\");
    Bytes request = Watch(share, root);
    std::thread waiting([&] { share.Ask(request); });
    share.fileSystem->AwaitBlockingCalls(1);
    share.fileSystem->cancelFailure = STATUS_UNSUCCESSFUL;
    EXPECT_EQ(root.Close().Status(), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(root.Close().Status(), STATUS_SUCCESS);
    waiting.join();
}

TEST(Cancel, SucceedsWithNothingInFlight)
{
    Share share;
    File root = share.Create(u"\\");
    EXPECT_EQ(share.fileSystem->RedirectedCancelAllIo(root.Id()), STATUS_SUCCESS);
}

TEST(CloseAllFiles, ClosesEverythingWithoutCompletions)
{
    Share share;
    share.Put("a", "");
    File root = share.Create(u"\\");
    // Nobody else may open it, so that the open below tells whether it was closed.
    File file = share.Create(u"\\a", {.share = 0});
    File stubborn = share.Create(u"\\b", {.disposition = FILE_CREATE});
    Bytes request = Watch(share, root);
    std::thread waiting([&] { EXPECT_EQ(share.Ask(request).Status(), STATUS_CANCELLED); });
    share.fileSystem->AwaitBlockingCalls(1);
    share.fileSystem->closeFailure = STATUS_IO_DEVICE_ERROR; // of the first close, that of the lowest id
    share.device->CloseAllFiles();
    waiting.join();
    EXPECT_EQ(share.channel.Untaken(), 0u);
    EXPECT_FALSE(share.device->IsAvailable());
    EXPECT_EQ(file.Read(0, 1).Status(), STATUS_DEVICE_REMOVED);
    share.device->SetAvailable(true);
    uint32_t lowest = std::min({root.Id(), file.Id(), stubborn.Id()});
    for (File *each : {&root, &file, &stubborn})
        EXPECT_EQ(each->Close().Status(), each->Id() == lowest ? STATUS_SUCCESS : STATUS_INVALID_HANDLE);
    EXPECT_EQ(share.Create(u"\\a").created.Status(), STATUS_SUCCESS);
}

} // namespace
} // namespace fodr::test
