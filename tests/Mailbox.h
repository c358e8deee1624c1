// What a thread waits for until another one brings it.
//
// Not a standard semaphore: that of the Windows library is asleep for good when the release comes between its
// look at the count and its wait.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <utility>

namespace fodr::test {

inline constexpr auto kTestLimit = std::chrono::seconds(60); // ends a test that hangs

template <class T> class Mailbox {
public:
    void Put(T item)
    {
        const std::lock_guard<std::mutex> held(lock);
        items.push_back(std::move(item));
        changed.notify_all();
    }
    T Take()
    {
        std::unique_lock<std::mutex> held(lock);
        if (!changed.wait_for(held, kTestLimit, [this] { return !items.empty(); })) {
            ADD_FAILURE() << "nothing came";
            return T{};
        }
        T item = std::move(items.front());
        items.pop_front();
        return item;
    }
    bool IsEmpty()
    {
        const std::lock_guard<std::mutex> held(lock);
        return items.empty();
    }

private:
    std::mutex lock;
    std::condition_variable changed;
    std::deque<T> items;
};

// Something that was called, seen from the test's thread. Calls may come after the test.
class Signal {
public:
    void Set() { calls->Put(1); }
    auto Setter()
    {
        return [kept = calls] { kept->Put(1); };
    }
    void Wait() { calls->Take(); } // for one call
    bool IsSet() { return !calls->IsEmpty(); }

private:
    std::shared_ptr<Mailbox<int>> calls = std::make_shared<Mailbox<int>>();
};

} // namespace fodr::test
