// A subscriber that keeps what it is told.
#pragma once

#include "Mailbox.h"
#include "drives/DriveWatcher.h"

#include <string>

namespace fodr::test {

// Notes calls as "+C" and "-C". Fails them all when told.
class RecordingSubscriber : public IDeviceStateSubscriber {
public:
    explicit RecordingSubscriber(bool callsSucceed = true) : result(callsSucceed) {}

    bool OnDeviceAvailable(char driveLetter) override { return Note({'+', driveLetter}); }
    bool OnDeviceUnavailable(char driveLetter) override { return Note({'-', driveLetter}); }

    // The next calls, as soon as they have come.
    std::string Next(int count)
    {
        std::string text;
        for (; count > 0; --count)
            text += calls.Take();
        return text;
    }
    bool HeardNothingMore() { return calls.IsEmpty(); }

private:
    bool Note(std::string call)
    {
        calls.Put(std::move(call));
        return result;
    }

    const bool result;
    Mailbox<std::string> calls;
};

} // namespace fodr::test
