// Arriving and leaving volumes, told in order on one thread.
#pragma once

#include <cstdint>
#include <memory>

namespace fodr::platform {

class IVolumeEventSink {
public:
    // Bit 0 is drive A. Bits above the 26th mean nothing.
    virtual void OnVolumesArrived(uint32_t unitMask) = 0;
    virtual void OnVolumesRemoved(uint32_t unitMask) = 0;
    // The end was asked for: no other call follows until the next Run.
    virtual void OnClose() = 0;

protected:
    ~IVolumeEventSink() = default;
};

// Open and Run belong to one thread; the others are for any.
class VolumeEvents {
public:
    VolumeEvents();
    ~VolumeEvents();
    VolumeEvents(const VolumeEvents &) = delete;
    VolumeEvents &operator=(const VolumeEvents &) = delete;

    // Changes count from here on. False when changes can't be heard of.
    bool Open();
    // Whether an opened source has not been closed by its end yet.
    bool IsOpen() const;
    // Calls the sink until the end is asked for; when nothing is open it only waits for that. False when the
    // source broke.
    bool Run(IVolumeEventSink &sink);
    // Makes Run call OnClose, close and return. On Windows returns when OnClose has been called.
    void RequestEnd();

private:
    void TellChanges(IVolumeEventSink &sink);

    struct State;
    std::unique_ptr<State> state;
};

} // namespace fodr::platform
