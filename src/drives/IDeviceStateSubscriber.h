// Told which drives came and went. Calls come on the watcher's thread, one at a time and in order.
#pragma once

namespace fodr {

class IDeviceStateSubscriber {
public:
    // The letter is a capital one. False is logged and disturbs nothing else.
    virtual bool OnDeviceAvailable(char driveLetter) = 0;
    virtual bool OnDeviceUnavailable(char driveLetter) = 0;
    virtual ~IDeviceStateSubscriber() = default;
};

} // namespace fodr
