// No answer overtakes the notice of a change that it shows. Runs under ThreadSanitizer, too.
#include "Mailbox.h"
#include "ntposix/ChangeWatch.h"
#include "ntposix/NtWords.h"

#include <algorithm>
#include <atomic>

namespace fodr::nt {
namespace {

class NoticesFirst : public NtFixture {
protected:
    // Notices that were sent, one for each change: the owner waits until somebody waits for it.
    void Watch(HANDLE folder)
    {
        for (;; ++delivered) {
            const NoticeOrder::Delivery delivery(order);
            order.Settle(); // of which there is nothing to wait for here
            if (Notify(folder, FILE_NOTIFY_CHANGE_FILE_NAME) != STATUS_NOTIFY_ENUM_DIR)
                return;
            std::this_thread::yield();
            ++sent;
        }
    }
    void ChangeOnce(int number) const
    {
        while (delivered < number - 1 || NoticeOrder::State::Of(order).waiting == 0)
            std::this_thread::yield();
        MakeFile(std::to_string(number));
    }
    // The highest number that is listed: a listing shows what is complete, and a look-up may show more.
    int Highest() const
    {
        int highest = 0;
        for (const std::string &name : Listing())
            highest = std::max(highest, std::stoi(name));
        return highest;
    }

    NoticeOrder order;
    std::atomic<int> sent{0}, delivered{0};
};

TEST_F(NoticesFirst, WhateverAListingShowsHasBeenToldBefore)
{
    constexpr int kChanges = 300;
    NtFile folder = Folder("");
    std::thread watcher([&] { Watch(folder); });
    std::atomic<int> shown{0}, overtakings{0};
    AtOnce(4, [&](int which) {
        if (which == 0) {
            for (int i = 1; i <= kChanges; ++i)
                ChangeOnce(i);
            return;
        }
        for (int last = 0, now = 0; now < kChanges; last = now) {
            now = Highest();
            order.Settle();
            if (sent < now)
                ++overtakings;
            shown += now != last;
        }
    });
    EXPECT_EQ(overtakings, 0);
    EXPECT_GT(shown, 10);
    CancelCall(folder);
    watcher.join();
    EXPECT_EQ(sent, kChanges);
}

// Nobody waits for what is cancelled, closed or told to others.
TEST_F(NoticesFirst, OnlyNoticesOfTheSameReceiverAreWaitedFor)
{
    MakeFolder("watched");
    NoticeOrder other;
    const NtFile folder = Folder("watched");
    test::Signal ended, go;
    std::thread watcher([&] {
        const NoticeOrder::Delivery delivery(other);
        EXPECT_EQ(Notify(folder, FILE_NOTIFY_CHANGE_FILE_NAME), STATUS_NOTIFY_ENUM_DIR);
        ended.Set();
        go.Wait(); // is being sent
    });
    std::thread cancelled([&] {
        const NtFile own = Folder("watched");
        std::thread canceller([&] { CancelCall(own); });
        const NoticeOrder::Delivery delivery(order);
        EXPECT_EQ(Notify(own, FILE_NOTIFY_CHANGE_FILE_NAME), STATUS_CANCELLED);
        canceller.join();
    });
    cancelled.join();
    while (NoticeOrder::State::Of(other).waiting == 0)
        std::this_thread::yield();
    MakeFile("watched/f");
    ended.Wait();
    order.Settle();
    std::atomic<bool> gone{false};
    test::Signal begun;
    std::thread waits([&] {
        begun.Set();
        other.Settle();
        EXPECT_TRUE(gone);
    });
    begun.Wait();
    order.Settle();
    std::this_thread::yield();
    gone = true;
    go.Set();
    watcher.join();
    waits.join();
}

} // namespace
} // namespace fodr::nt
