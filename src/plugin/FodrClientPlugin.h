// One per channel: joins the channel objects, the protocol engine and the host's message bus. Received
// messages become packets for the channel manager, its packets become messages, its notices become
// broadcasts.
//
// Threads: OnInvoke runs on the host's threads and returns as soon as the packet is queued. WriteChannel and
// NotifyODPObserver run on whatever thread produced the packet or notice, the pool's threads among them.
#pragma once

#include "logging/LoggerManager.h"
#include "odpservice/odpservice.h"
#include "plugin/RPCPluginInstance.h"
#include "rdpdr/BandwidthCounter.h"
#include "rdpdr/RdpdrChannelManager.h"
#include "rdpdr/wire/IRdpdrChannel.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace fodr {

class FodrClientPlugin : public RPCPluginInstance, public IRdpdrChannel {
public:
    // Both outlive the instance.
    FodrClientPlugin(RPCManager *owner, FodrLogger *clientLogger);
    ~FodrClientPlugin() override;

    void OnInvoke(void *context) override;

    bool NotifyODPObserver(const char *cookie, const char *message) override;
    // The packet stays with the caller.
    bool WriteChannel(RdpdrStream *packet) override;

private:
    using CountBytes = void (BandwidthCounter::*)(const void *data, size_t size);

    // Costs one test unless the log level is TRACE. The line carries the name of the caller's operation: it
    // tells what came in from what went out.
    void WatchPacket(const char *functionName, const void *data, size_t size, CountBytes count);
    void ReceiveBlock(const Variant &value);

    uint32_t observerId = 0; // 0: no subscription
    RdpdrChannelManager channelManager;
    const ODPRPC_VariantInterface *variantApi;
    const ODPRPC_ChannelContextInterface *contextApi;
    ODPObserver observerApi{};
    std::unique_ptr<BandwidthCounter> bandwidthCounter; // null when there was no memory for it
    std::atomic<uint32_t> dataChannelOptions{0}; // 0: not yet read; a real 0 is asked for at every message
    FodrLogger *logger;
};

} // namespace fodr
