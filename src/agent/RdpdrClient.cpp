#include "agent/RdpdrClient.h"

#include "agent/LossRecovery.h"
#include "agent/SharePackets.h"
#include "rdpdr/wire/RdpdrRecords.h"
#include "runtime/LogCall.h"

#include <algorithm>
#include <chrono>
#include <random>

namespace fodr::agent {

namespace {

constexpr size_t kSmallPayload = 600;

} // namespace

RdpdrClient::RdpdrClient(std::unique_ptr<platform::ByteStream> stream, const ClientOptions &clientOptions,
                         IClientObserver *clientObserver)
    : options(clientOptions), observer(clientObserver),
      requests([this](uint32_t deviceId, uint32_t fileId) { CloseOrphan(deviceId, fileId); },
               clientOptions.outlivesConnections),
      clientId(std::random_device{}()), channel(NewChannel(std::move(stream)))
{
    const MutexLock held(lock);
    requests.Connect(channel);
}

RdpdrClient::~RdpdrClient()
{
    {
        const MutexLock held(lock);
        stopping = true;
        clockWakeup.notify_all();
    }
    if (clock.joinable())
        clock.join();
    outlives = false;
    // Its threads end before the rest goes. What waits without a connection hears of it here.
    const std::shared_ptr<AgentChannel> present = Channel();
    present->Stop();
    requests.FailAll(STATUS_CONNECTION_DISCONNECTED);
}

void RdpdrClient::Start()
{
    if (options.ioTimeoutSeconds != 0)
        clock = std::thread([this] { ClockMain(); });
    Channel()->Start();
}

std::shared_ptr<AgentChannel> RdpdrClient::NewChannel(std::unique_ptr<platform::ByteStream> stream)
{
    IPacketReceiver *const receiver = this;
    return std::make_shared<AgentChannel>(std::move(stream), options, receiver);
}

std::shared_ptr<AgentChannel> RdpdrClient::Channel() const
{
    const MutexLock held(lock);
    return channel;
}

void RdpdrClient::Reconnect(std::unique_ptr<platform::ByteStream> stream)
{
    const std::shared_ptr<AgentChannel> former = Channel();
    former->Stop();
    std::erase_if(formerChannels, [](const auto &old) { return old.use_count() == 1; });
    formerChannels.push_back(former);
    firstConnection = false;
    clientId = std::random_device{}();
    const std::shared_ptr<AgentChannel> next = NewChannel(std::move(stream));
    {
        const MutexLock held(lock);
        channel = next;
        confirmed = false;
        for (KnownShare &share : shares)
            share.bound = false;
    }
    requests.Connect(next);
    next->Start();
}

void RdpdrClient::ClockMain()
{
    lock.lock();
    while (!stopping) {
        // Said before it looks: who adds a request then sees it, or is seen.
        clockSleeps = true;
        while (!stopping && !requests.AnyTimed())
            clockWakeup.wait(lock);
        clockSleeps = false;
        const auto next = std::chrono::steady_clock::now() + std::chrono::seconds(1);
        while (!stopping && std::chrono::steady_clock::now() < next)
            clockWakeup.wait_until(lock, next);
        lock.unlock();
        Tick();
        lock.lock();
    }
    lock.unlock();
}

void RdpdrClient::Submit(DR_DEVICE_IOREQUEST request, ByteSpan payload,
                         const RequestTable::Expected &expected, IoHandler handler)
{
    RequestTable::Passage passage;
    const nt::NTSTATUS added = requests.Add(expected, &request, payload, std::move(handler), &passage);
    if (added != nt::STATUS_PENDING) {
        handler(IoResult{.status = added});
        return;
    }
    if (expected.timed && clockSleeps) {
        const MutexLock held(lock);
        clockWakeup.notify_all();
    }
    if (passage.channel == nullptr) {
        if (passage.fileToReopen != 0)
            Reopen(passage.fileToReopen);
        return;
    }
    // A small payload may be gone as soon as the request has failed, which can be while it is being sent.
    // Large ones are the sending thread's own.
    std::array<uint8_t, kRequestPayload + kSmallPayload> packet;
    StorePacket(request, packet.data());
    size_t size = kRequestPayload;
    if (payload.size() <= kSmallPayload) {
        std::copy(payload.begin(), payload.end(), packet.begin() + kRequestPayload);
        size += std::exchange(payload, {}).size();
    }
    // When the connection has broken, its end fails the request like all others.
    passage.channel->SendPacket(ByteSpan(packet).first(size), payload);
}

void RdpdrClient::SendReleased(RequestTable::Released released)
{
    for (const auto &[request, payload] : released.packets) {
        std::array<uint8_t, kRequestPayload> head;
        StorePacket(request, head.data());
        released.channel->SendPacket(head, payload);
    }
    for (auto &[handler, status] : released.ended)
        handler(IoResult{.status = status});
    for (const uint32_t fileId : released.filesToReopen)
        Reopen(fileId);
}

void RdpdrClient::Remember(uint32_t fileId, std::shared_ptr<IReopen> reopen)
{
    if (options.outlivesConnections)
        requests.Remember(fileId, std::move(reopen));
}

void RdpdrClient::Reopen(uint32_t fileId)
{
    ReopenFile(*this, requests, fileId,
               [this](RequestTable::Released released) { SendReleased(std::move(released)); });
}

// ---- Handshake ----

void RdpdrClient::OnChannelReady()
{
    SendRecord(DR_CORE_SERVER_ANNOUNCE_REQ{.ClientId = clientId});
}

void RdpdrClient::OnClientIdConfirm(ByteSpan packet)
{
    if (packet.size() < kWireEnd<DR_CORE_CLIENT_ANNOUNCE_RSP>)
        return Channel()->Refuse("the plug-in's client id confirm is too short");
    if (LoadRecord<DR_CORE_CLIENT_ANNOUNCE_RSP>(&packet[kHeaderEnd]).ClientId != clientId)
        return Channel()->Refuse("the plug-in confirmed another client id");
    {
        const MutexLock held(lock);
        if (std::exchange(confirmed, true))
            return;
    }
    SendRest();
    observer->OnReady();
}

// The other side takes these in any order; the last of them to be handled makes it announce its shares.
void RdpdrClient::SendRest()
{
    SendRecord(DR_CORE_CAPABILITY_REQ{});
    uint16_t capabilities = 0;
    if (options.multiEntryDirectoryQuery)
        capabilities |= FODR_CAP_MULTI_ENTRY_DIRECTORY_QUERY;
    if (options.preRead)
        capabilities |= FODR_CAP_PRE_READ;
    if (options.driveLetterMapping)
        capabilities |= FODR_CAP_DRIVE_LETTER_MAPPING;
    SendRecord(FODR_VERSION_EXCHANGE{.Version = options.version, .Capabilities = capabilities});
    if (options.version > FODR_VERSION_NO_POLICY)
        Channel()->SendPacket(MakePolicyPacket(options.policy, options.version));
    std::array<uint8_t, kHeaderEnd> loggedOn;
    StoreRecord(RDPDR_HEADER{.PacketId = PAKID_CORE_USER_LOGGEDON}, loggedOn.data());
    Channel()->SendPacket(loggedOn);
}

void RdpdrClient::OnVersionExchange(ByteSpan packet)
{
    if (packet.size() < kWireEnd<FODR_VERSION_EXCHANGE>)
        return Channel()->Refuse("the plug-in's version packet is too short");
    const auto exchange = LoadRecord<FODR_VERSION_EXCHANGE>(&packet[kHeaderEnd]);
    LOG_INFO("The client version received = %d, capability = 0x%x\n", exchange.Version,
             exchange.Capabilities);
}

// ---- Packets ----

void RdpdrClient::OnPacket(ByteSpan packet)
{
    if (packet.size() < kHeaderEnd)
        return Channel()->Refuse("the plug-in sent a packet of " + std::to_string(packet.size()) + " bytes");
    const auto header = LoadRecord<RDPDR_HEADER>(packet.data());
    if (header.Component == RDPDR_CTYP_CORE)
        OnCorePacket(header.PacketId, packet);
    else if (header.Component == RDPDR_CTYP_PRIVATE && header.PacketId == PAKID_PRIVATE_VERSION_EXCHANGE)
        OnVersionExchange(packet);
}

void RdpdrClient::OnCorePacket(uint16_t packetId, ByteSpan packet)
{
    switch (packetId) {
    case PAKID_CORE_DEVICE_IOCOMPLETION:
        if (packet.size() < kCompletionBody)
            return Channel()->Refuse("the plug-in sent a completion of " + std::to_string(packet.size()) +
                                     " bytes");
        return requests.Complete(packet);
    case PAKID_CORE_CLIENTID_CONFIRM:
        return OnClientIdConfirm(packet);
    case PAKID_CORE_DEVICELIST_ANNOUNCE:
        return OnDeviceAnnounce(packet);
    case PAKID_CORE_DEVICELIST_REMOVE:
        return OnDeviceRemove(packet);
    default: // its name and capabilities change nothing here
        return;
    }
}

void RdpdrClient::CloseOrphan(uint32_t deviceId, uint32_t fileId)
{
    DR_DEVICE_IOREQUEST request;
    request.DeviceId = deviceId;
    request.FileId = fileId;
    request.MajorFunction = IRP_MJ_CLOSE;
    Submit(request, {}, {.deviceId = deviceId, .answer = AnswerKind::Status, .ofConnection = true},
           [](const IoResult &) {});
}

void RdpdrClient::OnGoodbyeAsked(const std::string &reason)
{
    observer->OnGoodbye(reason);
}

void RdpdrClient::OnChannelEnded(ChannelEnd end, const std::string &reason)
{
    const bool mayGoOn = end == ChannelEnd::Lost || (end == ChannelEnd::Refused && !firstConnection);
    if (outlives && options.outlivesConnections && mayGoOn) {
        requests.Disconnect();
        observer->OnLost(end, reason);
        return;
    }
    requests.FailAll(STATUS_CONNECTION_DISCONNECTED);
    observer->OnEnded(end, reason);
}

void RdpdrClient::OnDeviceAnnounce(ByteSpan packet)
{
    AnnounceReader reader(packet);
    for (RemoteDevice device; reader.Next(&device);)
        AddDevice(std::move(device));
    if (reader.Malformed())
        Channel()->Refuse("the plug-in's device announcement leaves its packet");
}

// What is known of the share that is announced: it came back under its number, or, `*back`, over a new
// connection. Another permission is another share: what was opened doesn't fit it.
RdpdrClient::KnownShare *RdpdrClient::FindShare(const RemoteDevice &announced, bool *back)
{
    *back = false;
    for (KnownShare &share : shares) {
        if (share.bound && share.wireId == announced.id)
            return &share;
    }
    for (KnownShare &share : shares) {
        if (share.bound || share.device.name != announced.name || share.device.path != announced.path ||
            share.device.permission != announced.permission)
            continue;
        *back = true;
        return &share;
    }
    return nullptr;
}

uint32_t RdpdrClient::FreeShareId(uint32_t wished) const
{
    while (std::any_of(shares.begin(), shares.end(),
                       [wished](const KnownShare &share) { return share.device.id == wished; }))
        ++wished;
    return wished;
}

void RdpdrClient::AddDevice(RemoteDevice device)
{
    const uint32_t wireId = device.id;
    bool back = false, usable = false;
    {
        const MutexLock held(lock);
        KnownShare *known = FindShare(device, &back);
        device.id = known ? known->device.id : FreeShareId(wireId);
        if (!known)
            known = &shares.emplace_back();
        usable = back && known->usable;
        *known = {.device = device, .wireId = wireId, .bound = true, .usable = usable};
    }
    // A share that came back under its number had lost its files.
    if (!back)
        requests.RemoveShare(device.id);
    RequestTable::Released released = requests.Bind(device.id, wireId);
    LOG_INFO("New device announced: %s, ID = %u.\n", device.name.c_str(), wireId);
    if (!back)
        usable = observer->OnDeviceAdded(device);
    else if (usable)
        observer->OnDeviceBack(device);
    if (usable)
        Accept(device.id);
    SendReleased(std::move(released));
}

void RdpdrClient::Accept(uint32_t deviceId)
{
    uint32_t wireId = 0;
    {
        const MutexLock held(lock);
        const auto known = std::find_if(shares.begin(), shares.end(), [deviceId](const KnownShare &share) {
            return share.device.id == deviceId;
        });
        if (known == shares.end())
            return; // removed
        known->usable = true;
        if (!known->bound || known->accepted)
            return;
        known->accepted = true;
        wireId = known->wireId;
    }
    SendRecord(DR_CORE_DEVICE_ANNOUNCE_RSP{.DeviceId = wireId});
}

void RdpdrClient::OnDeviceRemove(ByteSpan packet)
{
    RemoveReader reader(packet);
    for (uint32_t wireId = 0; reader.Next(&wireId);) {
        uint32_t id = 0;
        {
            const MutexLock held(lock);
            const auto known = std::find_if(shares.begin(), shares.end(), [wireId](const KnownShare &share) {
                return share.bound && share.wireId == wireId;
            });
            if (known == shares.end())
                continue;
            id = known->device.id;
            shares.erase(known);
        }
        requests.RemoveShare(id);
        LOG_INFO("Device removed: ID = %u.\n", wireId);
        observer->OnDeviceRemoved(id);
    }
    if (reader.Malformed())
        Channel()->Refuse("the plug-in's device removal leaves its packet");
}

void RdpdrClient::DropMissingShares(std::string_view name)
{
    std::vector<uint32_t> missing;
    {
        const MutexLock held(lock);
        std::erase_if(shares, [&](const KnownShare &share) {
            if (share.bound || !(name.empty() || share.device.name == name))
                return false;
            missing.push_back(share.device.id);
            return true;
        });
    }
    for (const uint32_t id : missing) {
        requests.RemoveShare(id);
        observer->OnDeviceRemoved(id);
    }
}

} // namespace fodr::agent
