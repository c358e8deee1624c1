#include "rdpdr/RdpdrChannelManager.h"

#include "platform/NtStatus.h"
#include "platform/Process.h"
#include "platform/SystemError.h"
#include "rdpdr/DataHandler.h"
#include "rdpdr/wire/RdpdrRecords.h"
#include "rdpdr/wire/RdpdrStream.h"
#include "runtime/LogCall.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

namespace fodr {

namespace {

std::string ReplyStatus(uint32_t resultCode)
{
    if (resultCode == 0)
        return "FOLDER_REDIRECTION_CMD_STATUS,SUCCEEDED";
    char text[64];
    snprintf(text, sizeof(text), "FOLDER_REDIRECTION_CMD_STATUS,Failed with code 0x%" PRIx32, resultCode);
    return text;
}

constexpr size_t kMaxComputerName = 127; // UTF-16 units, without the terminator
constexpr uint32_t kMinPolicyLength = 8;

uint16_t ClientCapabilities()
{
    return FODR_CLIENT_CAPABILITIES;
}

template <wire::Record Packet> std::array<uint8_t, kWireEnd<Packet>> PacketBytes(const Packet &packet)
{
    std::array<uint8_t, kWireEnd<Packet>> bytes;
    StorePacket(packet, bytes.data());
    return bytes;
}

const char *AbledPrefix(bool abled)
{
    return abled ? "en" : "dis";
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
    for (const auto &[id, device] : shares.Close())
        device->Retire();
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
        DropUnread(packet->stream);
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

    if (const Device device = shares.FindDevice(request.DeviceId)) {
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

    LOG_INFO("Device %u reply with code %u.\n", deviceId, resultCode);
    const std::optional<Device> entry = shares.EntryOf(deviceId, resultCode != 0);
    if (!entry) {
        LOG_ERROR("could find drive for deviceId %u.\n", deviceId);
        return;
    }
    const Device &device = *entry;
    if (!device) {
        LOG_ERROR("Invalid pointer to the drive.\n");
        return;
    }
    if (resultCode != 0)
        device->Retire(); // waits for the requests in flight

    const std::string message = ReplyStatus(resultCode);
    LOG_DEBUG("Notify ODPObserver with cookie [%s] for message [%s].\n", device->GetName().c_str(),
              message.c_str());
    Notify(device->GetName().c_str(), message);
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

// ---- Handshake ----

void RdpdrChannelManager::HandleServerAnnounce(RdpdrStream *stream)
{
    FODR_TRACE_FUNCTION();
    stream->SetPosition(kHeaderEnd);
    auto announce = ReadRecord<DR_CORE_SERVER_ANNOUNCE_REQ>(*stream);
    auto bytes = PacketBytes(DR_CORE_CLIENT_ANNOUNCE_RSP{.ClientId = announce.ClientId});
    RdpdrStream confirm(bytes.data(), bytes.size());
    Write(&confirm);
    if (clientVersion > 0)
        SendFodrClientVersion();
}

void RdpdrChannelManager::SendFodrClientVersion()
{
    FODR_TRACE_FUNCTION();
    uint16_t capabilities = ClientCapabilities();
    LOG_INFO("Sending FODR client version = %d, capability = 0x%x\n", clientVersion, capabilities);
    auto bytes = PacketBytes(FODR_VERSION_EXCHANGE{static_cast<uint16_t>(clientVersion), capabilities});
    RdpdrStream version(bytes.data(), bytes.size());
    Write(&version);
}

void RdpdrChannelManager::HandleServerCapability()
{
    FODR_TRACE_FUNCTION();
    auto bytes = PacketBytes(DR_CORE_CAPABILITY_RSP{});
    RdpdrStream capability(bytes.data(), bytes.size());
    Write(&capability);
    if (!SendClientName())
        LOG_ERROR("Failed sending client name.\n");
}

bool RdpdrChannelManager::SendClientName()
{
    FODR_TRACE_FUNCTION();
    std::u16string name = platform::ComputerName();
    if (name.empty()) {
        LOG_ERROR("Unable to get computer name, error %d.\n", static_cast<int>(platform::LastSystemError()));
        return false;
    }
    name.resize(std::min(name.size(), kMaxComputerName));

    std::array<uint8_t, kWireEnd<DR_CORE_CLIENT_NAME_REQ> + 2 * (kMaxComputerName + 1)> bytes{};
    auto nameLength = static_cast<uint32_t>(2 * name.size() + 2);
    StorePacket(DR_CORE_CLIENT_NAME_REQ{.ComputerNameLen = nameLength}, bytes.data());
    uint8_t *at = bytes.data() + kWireEnd<DR_CORE_CLIENT_NAME_REQ>;
    for (char16_t unit : name) {
        StoreLittle(at, static_cast<uint16_t>(unit));
        at += sizeof(uint16_t);
    }
    RdpdrStream packet(bytes.data(), static_cast<int32_t>(kWireEnd<DR_CORE_CLIENT_NAME_REQ> + nameLength));
    Write(&packet);
    return true;
}

void RdpdrChannelManager::ProcessPrivatePacket(uint16_t packetId, RdpdrStream *stream)
{
    FODR_TRACE_FUNCTION();
    if (shares.IsClosing())
        return; // the end waits for all that is queued
    if (packetId == PAKID_PRIVATE_VERSION_EXCHANGE) {
        HandleVersionExchange(stream);
    } else if (packetId == PAKID_PRIVATE_POLICY) {
        HandleFodrPolicy(stream);
        if (userLoggedOn && serverVersion != FODR_VERSION_UNKNOWN)
            OnUserReady();
    }
}

void RdpdrChannelManager::HandleUserLoggedOn()
{
    if (shares.IsClosing())
        return;
    userLoggedOn = true;
    if (serverVersion == FODR_VERSION_NO_POLICY || (serverVersion != FODR_VERSION_UNKNOWN && policy.load()))
        OnUserReady();
}

void RdpdrChannelManager::HandleVersionExchange(RdpdrStream *stream)
{
    FODR_TRACE_FUNCTION();
    stream->SetPosition(kHeaderEnd);
    auto exchange = ReadRecord<FODR_VERSION_EXCHANGE>(*stream);
    int32_t version = exchange.Version;
    uint32_t capabilities = exchange.Capabilities & 0xFFu; // the low byte alone counts
    serverVersion = version;
    driveLetterMappingDisabled = (capabilities & FODR_CAP_DRIVE_LETTER_MAPPING) == 0;
    LOG_INFO("The server version received = %d.\n", version);
    LOG_INFO("The server caps = 0x%x.\n", capabilities);
    LOG_INFO("Drive letter mapping is %sabled\n", AbledPrefix(!driveLetterMappingDisabled));

    if (version >= FODR_VERSION_DIRECTORY_CAPABILITY) {
        multiEntryDirectoryQuery = (capabilities & FODR_CAP_MULTI_ENTRY_DIRECTORY_QUERY) != 0;
        if (version >= FODR_VERSION_PRE_READ_CAPABILITY)
            preReadEnabled = (capabilities & FODR_CAP_PRE_READ) != 0;
        LOG_INFO("The client pre-read status: %sabled", AbledPrefix(preReadEnabled));
    }
    if (storedPolicyStream)
        HandlePolicyStream();
    if (userLoggedOn && (policy.load() || version == FODR_VERSION_NO_POLICY))
        OnUserReady();
}

void RdpdrChannelManager::HandlePolicyStream()
{
    FODR_TRACE_FUNCTION();
    LOG_WARN("Policy exists, parse policy stream.\n");
    // Taken out first: an agent whose version is 0 makes this store the packet anew.
    RdpdrStreamPtr stored = std::move(storedPolicyStream);
    HandleFodrPolicy(stored.get());
}

void RdpdrChannelManager::SetPolicyStream(const RdpdrStream *stream)
{
    FODR_TRACE_FUNCTION();
    if (!stream) {
        LOG_ERROR("Stream is NULL.\n");
        return;
    }
    storedPolicyStream.reset(RdpdrStream::Create(static_cast<size_t>(stream->Size())));
    if (storedPolicyStream && stream->Size() > 0)
        memcpy(storedPolicyStream->Base(), stream->Base(), static_cast<size_t>(stream->Size()));
}

bool RdpdrChannelManager::HandleFodrPolicy(RdpdrStream *stream)
{
    FODR_TRACE_FUNCTION();
    if (serverVersion == FODR_VERSION_UNKNOWN) {
        LOG_WARN("Server version unknown, save policy stream.\n");
        SetPolicyStream(stream);
        // Goes on: the header takes effect now.
    }
    stream->SetPosition(kHeaderEnd);
    uint32_t length = ReadRecord<FODR_POLICY>(*stream).PolicyLength;
    size_t remain = stream->Remaining();
    // The length is refused when it is *below* the rest: an overstated one passes.
    if (length < kMinPolicyLength || length < remain) {
        LOG_ERROR("Invalid policy length %d remain %lu.\n", static_cast<int>(length),
                  static_cast<unsigned long>(remain));
        return false;
    }
    if (!policy.load()) {
        policy = new (std::nothrow) ClientPolicy;
        if (!policy.load())
            return false;
    }
    policy.load()->ParsePolicy(stream->Cursor(), remain, length, serverVersion);
    return true;
}

void RdpdrChannelManager::OnUserReady()
{
    FODR_TRACE_FUNCTION();
    ClientPolicy *agentPolicy = policy;
    if (agentPolicy && agentPolicy->HasReadOnlyMark()) {
        LOG_INFO("CDR is marked as read-only\n");
        readOnly = true;
    }
    bool enabled = agentPolicy && agentPolicy->IsEnabled();
    if (serverVersion == FODR_VERSION_NO_POLICY || (enabled && !agentPolicy->IsSharedByAgent())) {
        RedirectAllDrives();
        RedirectDevicesFromRegKey();
    }
    if (enabled)
        AddPolicyFolders();
    Notify(nullptr, CapabilityStatus());
}

std::string RdpdrChannelManager::CapabilityStatus()
{
    FODR_TRACE_FUNCTION();
    ClientPolicy *agentPolicy = policy;
    std::string status = "RDPDR_CAPABILITY_STATUS";
    bool enabled = agentPolicy && agentPolicy->IsEnabled();
    if (!enabled && serverVersion != FODR_VERSION_NO_POLICY) {
        LOG_INFO("CDR is Disabled by Agent policy.\n");
        return status + ",DISABLED";
    }
    bool forced = agentPolicy && agentPolicy->IsSharedByAgent();
    return status + (forced ? ",FORCED" : ",ENABLED");
}

} // namespace fodr
