// Waits for the one TCP connection that the host makes for a side channel, and lets nobody else in.
#pragma once

#include "agent/InlineFunction.h"
#include "platform/ByteStream.h"
#include "transport/Frames.h"

#include <atomic>
#include <memory>
#include <string>
#include <thread>

namespace fodr::agent {

class SideListener {
public:
    // Called once, on the listener's thread: with the stream of the host that showed the secret, from which
    // its SideHello was read; or with null when the time ran out.
    using Arrival = InlineFunction<void(std::unique_ptr<platform::ByteStream>)>;

    SideListener() = default;
    // Waits for a call of the arrival that is running.
    ~SideListener() { Stop(); }

    // Listens on a free port of `address` (empty: all). False, with the reason, when it can't; at most once
    // otherwise.
    [[nodiscard]] bool Start(const std::string &address, uint32_t object, Arrival arrival,
                             transport::SideOffer *offer, std::string *error);
    // Ends the waiting. Cancel may be called while Start isn't running.
    void Cancel();
    void Stop();

private:
    void ThreadMain(uint32_t object);
    bool ShowsSecret(platform::ByteStream *stream, uint32_t object);

    std::unique_ptr<platform::StreamListener> listener;
    transport::Secret secret{};
    Arrival onArrival;
    std::atomic<bool> stopping{false};
    std::thread thread;
};

} // namespace fodr::agent
