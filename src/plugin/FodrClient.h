// The one object of the library, and what it makes for each channel.
#pragma once

#include "logging/LoggerManager.h"
#include "odpservice/odpservice.h"
#include "plugin/RPCManager.h"
#include "plugin/RPCPluginInstance.h"
#include "rdpdr/PacketAccounts.h"
#include "rdpdr/RdpdrChannelManager.h"
#include "rdpdr/wire/RdpdrStream.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace fodr {

// The one object of the library: what the exports forward to.
class FodrClient : public RPCManager {
public:
    FodrClient();

    RPCPluginInstance *CreatePluginInstance() override;
    bool OnPluginInit() override;
    bool OnPluginExit() override;

    FodrLogger *Logger() { return &logger; }

    // Built at library load, destroyed at process exit.
    static FodrClient &Instance();

private:
    FodrLogger logger;
};

// One per channel: joins the channel objects, the protocol engine and the host's message bus. Received
// messages become packets for the channel manager, its packets become messages, its notices become
// broadcasts.
//
// Threads: OnInvoke runs on the host's threads and returns as soon as the packet is queued. WriteChannel and
// NotifyODPObserver run on whatever thread produced the packet or notice, the pool's threads among them.
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
