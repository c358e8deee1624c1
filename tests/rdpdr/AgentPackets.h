// Packets as an agent sends them, and a channel that keeps what the client answers.
#pragma once

#include "Mailbox.h"
#include "WireExamples.h"
#include "platform/Nt.h"
#include "rdpdr/wire/RdpdrRecords.h"
#include "rdpdr/wire/RdpdrStream.h"

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace fodr::test {

// A record alone.
template <wire::Record Record> Bytes RecordOf(const Record &record, const Bytes &behind = {})
{
    Bytes bytes(kWireSize<Record>);
    StoreRecord(record, bytes.data());
    bytes.insert(bytes.end(), behind.begin(), behind.end());
    return bytes;
}
// A record with the header of its packet.
template <wire::Record Packet> Bytes PacketOf(const Packet &packet, const Bytes &behind = {})
{
    Bytes bytes(kWireEnd<Packet>, 0xCC); // unused bytes have to be written too
    StorePacket(packet, bytes.data());
    bytes.insert(bytes.end(), behind.begin(), behind.end());
    return bytes;
}
inline Bytes Cut(const Bytes &packet, size_t size)
{
    return Bytes(packet.begin(), packet.begin() + static_cast<ptrdiff_t>(size));
}
inline Bytes Utf16(std::u16string_view text)
{
    Bytes bytes;
    for (char16_t unit : text)
        bytes.insert(bytes.end(), {static_cast<uint8_t>(unit), static_cast<uint8_t>(unit >> 8)});
    return bytes;
}

inline Bytes ServerAnnounce(uint32_t clientId)
{
    return PacketOf(DR_CORE_SERVER_ANNOUNCE_REQ{.ClientId = clientId});
}
inline Bytes VersionExchange(uint16_t version, uint16_t capabilities = 0)
{
    return PacketOf(FODR_VERSION_EXCHANGE{version, capabilities});
}
inline Bytes UserLoggedOn()
{
    return RecordOf(RDPDR_HEADER{RDPDR_CTYP_CORE, PAKID_CORE_USER_LOGGEDON});
}
inline Bytes DeviceReply(uint32_t deviceId, uint32_t code)
{
    return PacketOf(DR_CORE_DEVICE_ANNOUNCE_RSP{deviceId, code});
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
    return PacketOf(request, Utf16(path));
}
inline Bytes OpenRoot(uint32_t deviceId, uint32_t completionId = 1)
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
        Bytes entries, rules, block{enabled, sharedByAgent, permission, 0, 0, 0, 0, 0};
        for (const auto &[entryPermission, path] : folders) {
            entries.insert(entries.end(), {entryPermission, 0xEE, 0xEE, 0xEE});
            AppendSized(entries, path);
        }
        if (!exclude.empty() || !include.empty()) {
            AppendSized(rules, exclude);
            AppendSized(rules, include);
        }
        if (version < 5) {
            block.insert(block.end(), entries.begin(), entries.end());
            return block;
        }
        AppendSized(block, entries);
        AppendSized(block, rules);
        return block;
    }

    // What follows its size, or another number that is said to be it.
    template <class Text>
    static void AppendSized(Bytes &bytes, const Text &text, std::optional<size_t> size = {})
    {
        Bytes number(4);
        StoreLittle(number.data(), static_cast<uint32_t>(size.value_or(text.size())));
        bytes.insert(bytes.end(), number.begin(), number.end());
        bytes.insert(bytes.end(), text.begin(), text.end());
    }
};

// The block under the length it has, or under another one.
inline Bytes PolicyPacket(const Bytes &block, std::optional<uint32_t> length = {})
{
    return PacketOf(FODR_POLICY{length.value_or(static_cast<uint32_t>(block.size()))}, block);
}

class RecordingChannel : public IRdpdrChannel {
public:
    bool NotifyODPObserver(const char *cookie, const char *message) override
    {
        notices.Put(std::string(cookie ? cookie : "") + "|" + message);
        return true;
    }
    bool WriteChannel(RdpdrStream *packet) override
    {
        packets.Put(Bytes(packet->Base(), packet->Base() + packet->Size()));
        return true;
    }

    // What came since the last look; waits until it is `count` of them.
    std::vector<Bytes> TakePackets(size_t count = 0) { return TakeAll(packets, count); }
    // As "COOKIE|TEXT".
    std::vector<std::string> TakeNotices() { return TakeAll(notices, 0); }

private:
    template <class Item> static std::vector<Item> TakeAll(Mailbox<Item> &mailbox, size_t count)
    {
        std::vector<Item> taken;
        while (taken.size() < count || !mailbox.IsEmpty())
            taken.push_back(mailbox.Take());
        return taken;
    }

    Mailbox<Bytes> packets;
    Mailbox<std::string> notices;
};

} // namespace fodr::test
