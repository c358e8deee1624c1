// Packets as an agent sends them, and a channel that keeps what the client answers.
#pragma once

#include "WireExamples.h"
#include "platform/Nt.h"
#include "rdpdr/wire/IRdpdrChannel.h"
#include "rdpdr/wire/RdpdrRecords.h"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace fodr::test {

template <wire::Record Packet> Bytes PacketOf(const Packet &packet)
{
    Bytes bytes(kWireEnd<Packet>);
    StorePacket(packet, bytes.data());
    return bytes;
}

inline Bytes ServerAnnounce(uint32_t clientId)
{
    return PacketOf(DR_CORE_SERVER_ANNOUNCE_REQ{.ClientId = clientId});
}
inline Bytes ServerCapability()
{
    return PacketOf(DR_CORE_CAPABILITY_REQ{});
}
inline Bytes VersionExchange(uint16_t version, uint16_t capabilities = 0)
{
    return PacketOf(FODR_VERSION_EXCHANGE{version, capabilities});
}
inline Bytes UserLoggedOn()
{
    Bytes bytes(kWireSize<RDPDR_HEADER>);
    StoreRecord(RDPDR_HEADER{RDPDR_CTYP_CORE, PAKID_CORE_USER_LOGGEDON}, bytes.data());
    return bytes;
}
inline Bytes DeviceReply(uint32_t deviceId, uint32_t code)
{
    return PacketOf(DR_CORE_DEVICE_ANNOUNCE_RSP{deviceId, code});
}
inline Bytes IoRequest(uint32_t deviceId, uint32_t major, uint32_t completionId, uint32_t fileId = 0,
                       uint32_t minor = 0)
{
    return PacketOf(DR_DEVICE_IOREQUEST{deviceId, fileId, completionId, major, minor, {}});
}
inline Bytes Open(uint32_t deviceId, const std::u16string &path, uint32_t disposition, uint32_t options,
                  uint32_t completionId = 1)
{
    DR_DEVICE_IOREQUEST request{deviceId, 0, completionId, IRP_MJ_CREATE, 0, {}};
    request.SetBody(DR_CREATE_REQ{.DesiredAccess = nt::FILE_READ_DATA,
                                  .SharedAccess = 7,
                                  .CreateDisposition = disposition,
                                  .CreateOptions = options,
                                  .PathLength = static_cast<uint32_t>(2 * path.size())});
    Bytes packet = PacketOf(request);
    for (char16_t unit : path)
        packet.insert(packet.end(), {static_cast<uint8_t>(unit), static_cast<uint8_t>(unit >> 8)});
    return packet;
}
inline Bytes OpenRoot(uint32_t deviceId, uint32_t completionId)
{
    return Open(deviceId, u"", nt::FILE_OPEN, nt::FILE_DIRECTORY_FILE, completionId);
}
inline uint32_t StatusOf(const Bytes &completion)
{
    return LoadLittle<uint32_t>(completion.data() + 12);
}

struct Policy {
    bool enabled = true;
    bool sharedByAgent = false;
    uint8_t permission = 5;
    std::vector<std::pair<uint8_t, std::string>> folders{};
    std::string exclude{};
    std::string include{};

    Bytes Block(int version) const
    {
        Bytes entries;
        for (const auto &[entryPermission, path] : folders) {
            entries.insert(entries.end(), {entryPermission, 0xEE, 0xEE, 0xEE});
            AppendText(entries, path);
        }
        Bytes block{enabled, sharedByAgent, permission, 0, 0, 0, 0, 0};
        if (version >= 5)
            AppendNumber(block, entries.size());
        block.insert(block.end(), entries.begin(), entries.end());
        if (version >= 5) {
            Bytes rules;
            if (!exclude.empty() || !include.empty()) {
                AppendText(rules, exclude);
                AppendText(rules, include);
            }
            AppendNumber(block, rules.size());
            block.insert(block.end(), rules.begin(), rules.end());
        }
        return block;
    }

    static void AppendNumber(Bytes &bytes, size_t number)
    {
        bytes.resize(bytes.size() + 4);
        StoreLittle(bytes.data() + bytes.size() - 4, static_cast<uint32_t>(number));
    }
    static void AppendText(Bytes &bytes, const std::string &text)
    {
        AppendNumber(bytes, text.size());
        bytes.insert(bytes.end(), text.begin(), text.end());
    }
};

// The block under the length it has, or under another one.
inline Bytes PolicyPacket(const Bytes &block, std::optional<uint32_t> length = {})
{
    Bytes packet = PacketOf(FODR_POLICY{length.value_or(static_cast<uint32_t>(block.size()))});
    packet.insert(packet.end(), block.begin(), block.end());
    return packet;
}

struct Notice {
    std::string cookie;
    std::string message;
    bool operator==(const Notice &) const = default;
};

class RecordingChannel : public IRdpdrChannel {
public:
    bool NotifyODPObserver(const char *cookie, const char *message) override
    {
        std::lock_guard held(mutex);
        notices.push_back({cookie ? cookie : "", message});
        return true;
    }
    bool WriteChannel(RdpdrStream *packet) override
    {
        std::lock_guard held(mutex);
        packets.emplace_back(packet->Base(), packet->Base() + packet->Size());
        changed.notify_all();
        return true;
    }

    std::vector<Bytes> TakePackets()
    {
        std::lock_guard held(mutex);
        return std::exchange(packets, {});
    }
    std::vector<Notice> TakeNotices()
    {
        std::lock_guard held(mutex);
        return std::exchange(notices, {});
    }
    void AwaitPackets(size_t count)
    {
        std::unique_lock held(mutex);
        changed.wait(held, [&] { return packets.size() >= count; });
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Bytes> packets;
    std::vector<Notice> notices;
};

} // namespace fodr::test
