// A subscriber that keeps what it is told.
#pragma once

#include "drives/IDeviceStateSubscriber.h"

#include <condition_variable>
#include <mutex>
#include <string>

namespace fodr::test {

// Notes calls as "+C" and "-C". Fails them all when told.
class RecordingSubscriber : public IDeviceStateSubscriber {
public:
    explicit RecordingSubscriber(bool callsSucceed = true) : result(callsSucceed) {}

    bool OnDeviceAvailable(char driveLetter) override { return Note('+', driveLetter); }
    bool OnDeviceUnavailable(char driveLetter) override { return Note('-', driveLetter); }

    // All calls so far, as soon as there are that many.
    std::string Await(size_t calls)
    {
        std::unique_lock<std::mutex> guard(lock);
        changed.wait(guard, [&] { return text.size() >= 2 * calls; });
        return text;
    }
    std::string Text()
    {
        std::lock_guard<std::mutex> guard(lock);
        return text;
    }

private:
    bool Note(char sign, char letter)
    {
        std::lock_guard<std::mutex> guard(lock);
        text += sign;
        text += letter;
        changed.notify_all();
        return result;
    }

    const bool result;
    std::mutex lock;
    std::condition_variable changed;
    std::string text;
};

} // namespace fodr::test
