#include "rdpdr/RdpdrChannelManager.h"

#include "platform/NtStatus.h"
#include "rdpdr/DataHandler.h"
#include "rdpdr/wire/RdpdrRecords.h"
#include "rdpdr/wire/RdpdrStream.h"
#include "runtime/LogCall.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

namespace fodr {

namespace {

// Gives back what it costs at its end at the latest, also when an exception ends the task.
struct ReceivedPacket {
    ReceivedPacket(RdpdrChannelManager *receiver, PacketBudget *ofPackets, RdpdrStream *packet)
        : manager(receiver), budget(ofPackets), stream(packet)
    {}
    ~ReceivedPacket()
    {
        stream.reset();
        GiveBackCost();
    }
    ReceivedPacket(const ReceivedPacket &) = delete;
    ReceivedPacket &operator=(const ReceivedPacket &) = delete;

    void GiveBackCost()
    {
        if (cost != 0)
            budget->GiveBack(std::exchange(cost, 0));
    }

    RdpdrChannelManager *const manager;
    PacketBudget *const budget;
    RdpdrStreamPtr stream;
    size_t cost = 0;
};

// The packet without what nobody reads of it, if there is memory for that.
void Shorten(RdpdrStreamPtr &stream)
{
    if (static_cast<size_t>(stream->Size()) <= kWaitingPacket)
        return;
    RdpdrStreamPtr shorter(RdpdrStream::Create(kWaitingPacket));
    if (!shorter)
        return;
    memcpy(shorter->Base(), stream->Base(), kWaitingPacket);
    stream = std::move(shorter);
}

std::string ReplyStatus(uint32_t resultCode)
{
    if (resultCode == 0)
        return "FOLDER_REDIRECTION_CMD_STATUS,SUCCEEDED";
    char text[64];
    snprintf(text, sizeof(text), "FOLDER_REDIRECTION_CMD_STATUS,Failed with code 0x%" PRIx32, resultCode);
    return text;
}

} // namespace

RdpdrChannelManager::RdpdrChannelManager()
    : clientVersion(FODR_CLIENT_VERSION), driveWatcher(IDriveWatcher::Create()),
      dataHandler(std::make_unique<ThreadPoolDataHandlerImpl>(0))
{}

RdpdrChannelManager::~RdpdrChannelManager()
{
    RdpdrChannelManager::Shutdown();
}

bool RdpdrChannelManager::Initialize(IRdpdrChannel *packetChannel, FodrLogger *trace)
{
    channel = packetChannel;
    packetTrace = trace;
    return true;
}

void RdpdrChannelManager::Shutdown()
{
    FODR_TRACE_FUNCTION();
    {
        OVMutexLock held(watcherLock);
        if (driveWatcher && !driveWatcher->Stop())
            LOG_ERROR("Failed to stop drive watcher\n");
        driveWatcher.reset();
    }
    // Packets that are still queued find no share from here on, and add none.
    CloseAllDevices();
    dataHandler.reset();
    // No task is left that could see these go.
    channel = nullptr;
    packetTrace = nullptr;
    delete policy.exchange(nullptr);
    OVMutexLock held(stateLock);
    storedPolicyStream.reset();
}

void RdpdrChannelManager::CloseAllDevices()
{
    FODR_TRACE_FUNCTION();
    std::map<uint32_t, Device> taken;
    {
        OVMutexLock held(deviceTableLock);
        closing = true;
        taken.swap(devices);
    }
    for (auto &[id, device] : taken)
        device->Retire();
}

bool RdpdrChannelManager::IsClosing()
{
    OVMutexLock held(deviceTableLock);
    return closing;
}

int RdpdrChannelManager::GetClientVersion()
{
    return clientVersion;
}

bool RdpdrChannelManager::OnDataReceived(RdpdrStream *stream)
{
    FODR_TRACE_FUNCTION();
    if (!dataHandler) {
        LOG_ERROR("Thread pool is not initialzed.\n");
        return false;
    }
    std::unique_ptr<ReceivedPacket> packet(new (std::nothrow) ReceivedPacket(this, &packetBudget, stream));
    if (!packet)
        return false;
    packet->cost = PacketBudget::CostOf(*stream);
    packetBudget.Take(packet->cost);
    if (dataHandler->SubmitTask(ProcessDataTask, packet.get())) {
        static_cast<void>(packet.release());
        return true;
    }
    static_cast<void>(packet->stream.release());
    return false;
}

void RdpdrChannelManager::ProcessDataTask(void *record)
{
    const std::unique_ptr<ReceivedPacket> packet(static_cast<ReceivedPacket *>(record));
    if (MayWaitForEver(*packet->stream)) {
        Shorten(packet->stream);
        packet->GiveBackCost();
    }
    packet->manager->ProcessData(packet->stream.get());
}

bool RdpdrChannelManager::ProcessData(RdpdrStream *stream)
{
    FODR_TRACE_FUNCTION();
    stream->SetPosition(0);
    auto header = ReadRecord<RDPDR_HEADER>(*stream);
    if (header.Component == RDPDR_CTYP_PRIVATE) {
        OVMutexLock held(stateLock);
        ProcessPrivatePacket(header.PacketId, stream);
        // Goes on below: a core packet under the private component is served as well.
    } else if (header.Component != RDPDR_CTYP_CORE) {
        LOG_ERROR("Received packet with component != CORE component:0x%x\n", header.Component);
        return false;
    }
    switch (header.PacketId) {
    case PAKID_CORE_DEVICE_IOREQUEST:
        HandleDeviceIoRequest(stream);
        break;
    case PAKID_CORE_SERVER_ANNOUNCE:
        HandleServerAnnounce(stream);
        break;
    case PAKID_CORE_SERVER_CAPABILITY:
        HandleServerCapability();
        break;
    case PAKID_CORE_USER_LOGGEDON: {
        OVMutexLock held(stateLock);
        HandleUserLoggedOn();
        break;
    }
    case PAKID_CORE_DEVICE_REPLY:
        HandleDeviceReply(stream);
        break;
    default:
        break;
    }
    return true;
}

void RdpdrChannelManager::HandleDeviceIoRequest(RdpdrStream *stream)
{
    FODR_TRACE_FUNCTION();
    if (!stream->SetPosition(kHeaderEnd))
        return;
    auto request = ReadRecord<DR_DEVICE_IOREQUEST>(*stream);
    stream->SetPosition(0);

    Device device;
    {
        OVMutexLock held(deviceTableLock);
        device = FindDevice(request.DeviceId);
    }
    if (device) {
        device->OnIoRequest(stream);
        return;
    }
    // Out of the lock: a peer that reads slowly must not keep the requests of others waiting.
    RdpdrStreamPtr completion =
        BuildIoCompletion(request.DeviceId, request.CompletionId, nt::STATUS_DEVICE_REMOVED, 0, nullptr);
    if (completion)
        Write(completion.get());
}

void RdpdrChannelManager::HandleDeviceReply(RdpdrStream *stream)
{
    FODR_TRACE_FUNCTION();
    if (!stream->SetPosition(kHeaderEnd)) {
        LOG_WARN("Set the stream position error.\n");
        return;
    }
    // The zeros behind a cut reply would tell of a success.
    if (stream->Remaining() < sizeof(uint32_t)) {
        LOG_WARN("Read device ID error.\n");
        return;
    }
    if (stream->Remaining() < kWireSize<DR_CORE_DEVICE_ANNOUNCE_RSP>) {
        LOG_WARN("Read result code error.\n");
        return;
    }
    const auto [deviceId, resultCode] = ReadRecord<DR_CORE_DEVICE_ANNOUNCE_RSP>(*stream);

    Device device;
    {
        OVMutexLock held(deviceTableLock);
        LOG_INFO("Device %u reply with code %u.\n", deviceId, resultCode);
        auto found = devices.find(deviceId);
        if (found == devices.end()) {
            LOG_ERROR("could find drive for deviceId %u.\n", deviceId);
            return;
        }
        device = found->second;
        if (!device) {
            LOG_ERROR("Invalid pointer to the drive.\n");
            return;
        }
        if (resultCode != 0)
            devices.erase(found);
    }
    // Out of the lock: this waits for the requests in flight.
    if (resultCode != 0)
        device->Retire();

    const std::string message = ReplyStatus(resultCode);
    LOG_DEBUG("Notify ODPObserver with cookie [%s] for message [%s].\n", device->GetName().c_str(),
              message.c_str());
    Notify(device->GetName().c_str(), message);
}

RdpdrChannelManager::Device RdpdrChannelManager::FindDevice(uint32_t deviceId)
{
    auto found = devices.find(deviceId);
    return found == devices.end() ? Device() : found->second;
}

void RdpdrChannelManager::Write(RdpdrStream *packet)
{
    if (channel)
        channel->WriteChannel(packet);
}

void RdpdrChannelManager::Notify(const char *cookie, const std::string &message)
{
    if (channel)
        channel->NotifyODPObserver(cookie, message.c_str());
}

} // namespace fodr
