// The other end of a connection, played by the test: the host's frames over a real stream, and the plug-in's
// packets one by one as the test says.
#pragma once

#include "Mailbox.h"
#include "WireExamples.h"
#include "agent/RdpdrClient.h"
#include "agent/RemoteShare.h"
#include "odpservice/odpservice.h"
#include "rdpdr/wire/RdpdrRecords.h"
#include "transport/FrameRecorder.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace fodr::agent {

using test::Mailbox;

template <wire::Record Packet> Bytes PacketOf(const Packet &packet, const Bytes &rest = {})
{
    Bytes bytes(kWireEnd<Packet>);
    StorePacket(packet, bytes.data());
    bytes.insert(bytes.end(), rest.begin(), rest.end());
    return bytes;
}

// A request that the client sent.
struct Request {
    Bytes packet;

    DR_DEVICE_IOREQUEST Head() const { return LoadRecord<DR_DEVICE_IOREQUEST>(&packet[kHeaderEnd]); }
    uint64_t Offset() const { return Head().Body<DR_READ_REQ>().Offset; }
    uint32_t Length() const { return Head().Body<DR_READ_REQ>().Length; }
    Bytes Payload() const { return {packet.begin() + kRequestPayload, packet.end()}; }
};

class ScriptedPlugin final : public test::FrameRecorder {
public:
    static constexpr uint32_t kDataObject = 2;

    explicit ScriptedPlugin(std::unique_ptr<platform::ByteStream> stream)
        : connection(std::move(stream), this)
    {
        connection.Start();
    }
    void SayHello(const std::string &token = {})
    {
        connection.Send(transport::Hello{.keepAlive = {0, 0}, .token = token});
    }
    void ConnectObjects()
    {
        for (uint32_t object : {1u, kDataObject})
            connection.Send(transport::ObjectState{.object = object, .state = OBJECT_CONNECTED});
    }
    // Hello, objects and handshake; the client's packets of it are taken.
    void BringUp()
    {
        SayHello();
        ConnectObjects();
        const Bytes announce = Take();
        const auto id = LoadRecord<DR_CORE_SERVER_ANNOUNCE_REQ>(&announce[kHeaderEnd]).ClientId;
        Send(PacketOf(DR_CORE_CLIENT_ANNOUNCE_RSP{.ClientId = id}));
        for (int i = 0; i < 4; ++i) // capability, version, policy, logged on
            Take();
    }
    void SendAnnounce(uint32_t deviceId, const std::string &name)
    {
        Bytes packet = PacketOf(DR_CORE_DEVICELIST_ANNOUNCE_REQ{});
        const DEVICE_ANNOUNCE device = {.DeviceId = deviceId,
                                        .DeviceDataLength = static_cast<uint32_t>(name.size() + 1)};
        packet.resize(kWireEnd<DEVICE_ANNOUNCE>);
        StoreRecord(device, &packet[kWireEnd<DR_CORE_DEVICELIST_ANNOUNCE_REQ>]);
        packet.insert(packet.end(), name.c_str(), name.c_str() + name.size() + 1);
        Send(packet);
    }
    void Announce(uint32_t deviceId, const std::string &name)
    {
        SendAnnounce(deviceId, name);
        Take(); // the reply
    }

    Bytes Take() { return packets.Take(); }
    Request TakeRequest() { return {Take()}; }
    void Send(const Bytes &packet) { connection.SendPost(kDataObject, 0, std::as_bytes(std::span(packet))); }

    void Complete(const Request &request, nt::NTSTATUS status, const Bytes &body = Bytes(5))
    {
        Send(PacketOf(DR_DEVICE_IOCOMPLETION{.DeviceId = request.Head().DeviceId,
                                             .CompletionId = request.Head().CompletionId,
                                             .IoStatus = static_cast<uint32_t>(status)},
                      body));
    }
    // The body is a number and what is behind it.
    void CompleteNumber(const Request &request, uint32_t number, const Bytes &rest = Bytes(1),
                        nt::NTSTATUS status = nt::STATUS_SUCCESS)
    {
        Bytes body(4);
        StoreLittle(body.data(), number);
        body.insert(body.end(), rest.begin(), rest.end());
        Complete(request, status, body);
    }
    void CompleteData(const Request &request, const Bytes &data)
    {
        CompleteNumber(request, static_cast<uint32_t>(data.size()), data);
    }
    void SayGoodbye() { connection.Send(transport::Goodbye{.reason = "that's it"}); }
    void Close() { connection.Close("closed by the test"); }

    Mailbox<std::string> heard; // all other frames

private:
    void OnMessage(const transport::Message &message) override
    {
        const auto block = message.parameters[0].block;
        const auto *bytes = reinterpret_cast<const uint8_t *>(block.data());
        packets.Put(Bytes(bytes, bytes + block.size()));
    }
    void Hear(const std::string &line) override { heard.Put(line); }

    Mailbox<Bytes> packets;
    transport::FrameConnection connection;
};

// A client whose other end is scripted, brought up with one share.
class ClientTest : public ::testing::Test, protected IClientObserver {
protected:
    static constexpr uint32_t kDevice = 0xFFFF;

    void Start(const ClientOptions &options)
    {
        auto [mine, theirs] = platform::MakeStreamPair();
        plugin = std::make_unique<ScriptedPlugin>(std::move(theirs));
        IClientObserver *observer = this;
        client = std::make_unique<RdpdrClient>(std::move(mine), options, observer);
        client->Start();
    }
    void StartWithShare()
    {
        ClientOptions options;
        options.ioTimeoutSeconds = 1000000; // its clock runs
        Start(options);
        plugin->BringUp();
        plugin->Announce(kDevice, "docs");
        share = std::make_shared<RemoteShare>(*client, devices.Take());
    }
    // A client that outlives its connections.
    void StartOutlivingWithoutShare(unsigned ioTimeoutSeconds = 1000000)
    {
        ClientOptions options;
        options.ioTimeoutSeconds = ioTimeoutSeconds;
        options.outlivesConnections = true;
        Start(options);
        client->OutliveConnections();
        plugin->BringUp();
    }
    void StartOutliving(unsigned ioTimeoutSeconds = 1000000)
    {
        StartOutlivingWithoutShare(ioTimeoutSeconds);
        plugin->Announce(kDevice, "docs");
        share = std::make_shared<RemoteShare>(*client, devices.Take());
    }
    void Lose()
    {
        plugin->Close();
        losses.Take();
    }
    void Reconnect()
    {
        auto [mine, theirs] = platform::MakeStreamPair();
        plugin = std::make_unique<ScriptedPlugin>(std::move(theirs));
        client->Reconnect(std::move(mine));
        plugin->BringUp();
    }
    // The host is back, and its share under another number.
    void ComeBack(uint32_t deviceId, const std::string &name = "docs")
    {
        Reconnect();
        plugin->Announce(deviceId, name);
    }
    // Not in the destructor: the client's last calls come to an observer that is still whole.
    void TearDown() override
    {
        client.reset();
        plugin.reset();
    }

    bool OnDeviceAdded(const RemoteDevice &device) override
    {
        devices.Put(device);
        return acceptsShares;
    }
    void OnDeviceRemoved(uint32_t deviceId) override { removed.Put(deviceId); }
    void OnDeviceBack(const RemoteDevice &device) override { back.Put(device); }
    void OnGoodbye(const std::string &) override {}
    void OnLost(ChannelEnd end, const std::string &) override { losses.Put(end); }
    void OnEnded(ChannelEnd end, const std::string &reason) override { ends.Put({end, reason}); }

    bool acceptsShares = true; // at once
    Mailbox<RemoteDevice> devices;
    Mailbox<RemoteDevice> back;
    Mailbox<uint32_t> removed;
    Mailbox<ChannelEnd> losses;
    Mailbox<std::pair<ChannelEnd, std::string>> ends;
    std::unique_ptr<ScriptedPlugin> plugin;
    std::unique_ptr<RdpdrClient> client;
    std::shared_ptr<RemoteShare> share;
};

} // namespace fodr::agent
