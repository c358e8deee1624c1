#include "rdpdr/PacketTrace.h"

#include "lib/misc/Panic.h"
#include "lib/unicode/CodeSet.h"
#include "rdpdr/ClientPolicy.h"
#include "rdpdr/wire/RdpdrRecords.h"
#include "runtime/StringUtils.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

namespace fodr {

namespace {

std::atomic<bool> fullDump{false};

// A text of bounded length; what is too long is cut.
template <size_t Size> class Text {
public:
    void Add(const char *format, ...) FODR_PRINTF(2, 3)
    {
        va_list arguments;
        va_start(arguments, format);
        int added = StringUtils::FormatBufferV(buffer.data() + length, Size - length, format, arguments);
        va_end(arguments);
        length += static_cast<size_t>(std::max(added, 0));
    }
    const char *Get() const { return buffer.data(); }

private:
    std::array<char, Size> buffer{};
    size_t length = 0;
};
using Message = Text<1024>;
using HeaderText = Text<255>;

class Packet {
public:
    Packet(const void *data, size_t length) : bytes(static_cast<const uint8_t *>(data)), size(length)
    {
        if (size > 0)
            memcpy(head.data(), bytes, std::min(size, head.size()));
    }

    size_t Size() const { return size; }
    // At its place in the packet. Missing bytes are zeros.
    template <wire::Record R> R Get() const
    {
        static_assert(kWireEnd<R> <= kRequestPayload);
        return LoadRecord<R>(head.data() + R::Layout::kBegin);
    }
    template <wire::Record R> bool Holds(size_t offset) const
    {
        return offset <= size && size - offset >= kWireSize<R>;
    }
    // The part of the bytes there that the packet holds.
    std::string_view Bytes(size_t offset, size_t length) const
    {
        offset = std::min(offset, size);
        return {reinterpret_cast<const char *>(bytes) + offset, std::min(length, size - offset)};
    }
    const uint8_t *At(size_t offset) const { return bytes + offset; }

private:
    const uint8_t *bytes;
    size_t size;
    std::array<uint8_t, kRequestPayload> head{};
};

std::string UpToZero(std::string_view bytes)
{
    return std::string(bytes.substr(0, bytes.find('\0')));
}

// UTF-16 up to its first zero, with what isn't text replaced.
std::string WideUpToZero(std::string_view bytes)
{
    auto *units = reinterpret_cast<const uint8_t *>(bytes.data());
    size_t count = bytes.size() / sizeof(char16_t);
    std::string text;
    for (size_t i = 0; i < count;) {
        DecodedCodePoint decoded = DecodeUtf16(units, i, count);
        if (decoded.taken == 0)
            decoded = {U'\uFFFD', 1};
        if (decoded.codePoint == 0)
            break;
        uint8_t encoded[4];
        text.append(reinterpret_cast<const char *>(encoded), EncodeUtf8(decoded.codePoint, encoded));
        i += decoded.taken;
    }
    return text;
}

void DecodeServerAnnounce(const Packet &packet, Message &text)
{
    auto record = packet.Get<DR_CORE_SERVER_ANNOUNCE_REQ>();
    text.Add("SERVER_ANNOUNCE(VersionMajor:%x, VersionMinor:%x, ClientId:%x)", record.VersionMajor,
             record.VersionMinor, record.ClientId);
}

void DecodeClientIdConfirm(const Packet &packet, Message &text)
{
    auto record = packet.Get<DR_CORE_CLIENT_ANNOUNCE_RSP>();
    text.Add("CLIENTID_CONFIRM(VersionMajor:%x, VersionMinor:%x, ClientId:%x)", record.VersionMajor,
             record.VersionMinor, record.ClientId);
}

void DecodeClientName(const Packet &packet, Message &text)
{
    auto record = packet.Get<DR_CORE_CLIENT_NAME_REQ>();
    std::string name = WideUpToZero(packet.Bytes(kWireEnd<DR_CORE_CLIENT_NAME_REQ>, record.ComputerNameLen));
    text.Add("CLIENT_NAME(UnicodeFlag:%x, CodePage:%x, ComputerNameLen:%x, ComputerName:%s)",
             record.UnicodeFlag, record.CodePage, record.ComputerNameLen, name.c_str());
}

void DecodeDeviceListAnnounce(const Packet &packet, Message &text)
{
    uint32_t count = packet.Get<DR_CORE_DEVICELIST_ANNOUNCE_REQ>().DeviceCount;
    text.Add("DEVICELIST_ANNOUNCE(DeviceCount:%d)", static_cast<int>(count));
    size_t at = kWireEnd<DR_CORE_DEVICELIST_ANNOUNCE_REQ>;
    for (uint32_t i = 0; i < count && packet.Holds<DEVICE_ANNOUNCE>(at); ++i) {
        auto device = LoadRecord<DEVICE_ANNOUNCE>(packet.At(at));
        std::string_view dosName(reinterpret_cast<const char *>(device.PreferredDosName.data()),
                                 device.PreferredDosName.size());
        at += kWireSize<DEVICE_ANNOUNCE>;
        std::string_view stated = packet.Bytes(at, device.DeviceDataLength);
        std::string data = UpToZero(stated);
        text.Add(" DeviceType: %d, DeviceId: %d, DosName: %s, DeviceDataLength: %d DeviceData:%s",
                 static_cast<int>(device.DeviceType), static_cast<int>(device.DeviceId),
                 UpToZero(dosName).c_str(), static_cast<int>(device.DeviceDataLength),
                 data.empty() ? "[N/A]" : data.c_str());
        if (stated.size() < device.DeviceDataLength)
            break;
        at += stated.size();
    }
}

void DecodeDeviceReply(const Packet &packet, Message &text)
{
    auto record = packet.Get<DR_CORE_DEVICE_ANNOUNCE_RSP>();
    text.Add("DEVICE_REPLY(DeviceId: %d, ResultCode: %x)", static_cast<int>(record.DeviceId),
             record.ResultCode);
}

void DecodeServerCapability(const Packet &packet, Message &text)
{
    text.Add("SERVER_CAPABILITY(numCapabilities:%d)", packet.Get<DR_CORE_CAPABILITY_REQ>().numCapabilities);
}

void DecodeClientCapability(const Packet &packet, Message &text)
{
    // The fields that both directions have.
    text.Add("CLIENT_CAPABILITY(numCapabilities:%d)", packet.Get<DR_CORE_CAPABILITY_REQ>().numCapabilities);
}

void DecodeVersionExchange(const Packet &packet, Message &text)
{
    auto record = packet.Get<FODR_VERSION_EXCHANGE>();
    text.Add("VERSION_EXCHANGE(Version:%d caps:0x%x)", record.Version, record.Capabilities);
}

void DecodePolicy(const Packet &packet, Message &text)
{
    std::string_view block = packet.Bytes(kWireEnd<FODR_POLICY>, packet.Size());
    FodrPolicy policy;
    policy.ParsePolicy(reinterpret_cast<const uint8_t *>(block.data()), block.size());
    text.Add("Policy : %s %s %d", policy.IsEnabled() ? "Enabled" : "Disabled",
             policy.IsSharedByAgent() ? "Shared by Agent" : "No limit",
             static_cast<int>(policy.GetDefaultPermission()));
}

struct NumberName {
    uint32_t number;
    const char *name;
};

constexpr NumberName kMajorNames[] = {
    {IRP_MJ_CREATE, "CREATE"},
    {IRP_MJ_CLOSE, "CLOSE"},
    {IRP_MJ_READ, "READ"},
    {IRP_MJ_WRITE, "WRITE"},
    {IRP_MJ_DEVICE_CONTROL, "DEVICE_CTRL"},
    {IRP_MJ_QUERY_VOLUME_INFORMATION, "QUERY_VOLUME"},
    {IRP_MJ_SET_VOLUME_INFORMATION, "SET_VOLUME"},
    {IRP_MJ_QUERY_INFORMATION, "QUERY_INFO"},
    {IRP_MJ_SET_INFORMATION, "SET_INFO"},
    {IRP_MJ_DIRECTORY_CONTROL, "DIR_CTRL"},
    {IRP_MJ_LOCK_CONTROL, "LOCK_CTRL"},
};
constexpr NumberName kMinorNames[] = {
    {IRP_MN_NOTIFY_CHANGE_DIRECTORY, "NOTIFY"},
    {IRP_MN_QUERY_DIRECTORY, "QUERY"},
};

const char *NameOf(uint32_t number, std::span<const NumberName> names, const char *unknown)
{
    auto known = std::find_if(names.begin(), names.end(),
                              [number](const NumberName &entry) { return entry.number == number; });
    return known == names.end() ? unknown : known->name;
}

void AddCreate(const Packet &packet, Message &text)
{
    auto body = packet.Get<DR_CREATE_REQ>();
    std::string path = WideUpToZero(packet.Bytes(kRequestPayload, body.PathLength));
    text.Add("\n      CREATE(DesiredAccess:%x, AllocSize:%lld, FileAttributes:%x\n"
             "             SharedAccess:%x, CreateDisposition:%x, CreateOptions:%x\n"
             "             PathLength: %d Path:%s)",
             body.DesiredAccess, static_cast<long long>(body.AllocationSize), body.FileAttributes,
             body.SharedAccess, body.CreateDisposition, body.CreateOptions, static_cast<int>(body.PathLength),
             path.c_str());
}

void AddDirectoryControl(const Packet &packet, uint32_t minor, Message &text)
{
    if (minor == IRP_MN_QUERY_DIRECTORY) {
        auto body = packet.Get<DR_DRIVE_QUERY_DIRECTORY_REQ>();
        text.Add("\n      QUERY(InfoClass:%d, InitialQuery:%d, PathLen:%d)",
                 static_cast<int>(body.FsInformationClass), body.InitialQuery,
                 static_cast<int>(body.PathLength));
    } else if (minor == IRP_MN_NOTIFY_CHANGE_DIRECTORY) {
        auto body = packet.Get<DR_DRIVE_NOTIFY_CHANGE_DIRECTORY_REQ>();
        text.Add("\n      NOTIFY(WatchTree:%d, CompletionFilter:%x)", body.WatchTree, body.CompletionFilter);
    }
}

void AddBody(const Packet &packet, const DR_DEVICE_IOREQUEST &request, Message &text)
{
    switch (request.MajorFunction) {
    case IRP_MJ_CREATE:
        AddCreate(packet, text);
        break;
    case IRP_MJ_READ:
    case IRP_MJ_WRITE: {
        auto body = packet.Get<DR_READ_REQ>();
        text.Add("\n      IRP_MJ_RW(Offset:%lld Length: %d)", static_cast<long long>(body.Offset),
                 static_cast<int>(body.Length));
        break;
    }
    case IRP_MJ_DEVICE_CONTROL: {
        auto body = packet.Get<DR_CONTROL_REQ>();
        text.Add("\n      IOCTL(OutBufLen:%d, InBufLen:%d, Ioctl:%x)",
                 static_cast<int>(body.OutputBufferLength), static_cast<int>(body.InputBufferLength),
                 body.IoControlCode);
        break;
    }
    case IRP_MJ_DIRECTORY_CONTROL:
        AddDirectoryControl(packet, request.MinorFunction, text);
        break;
    case IRP_MJ_SET_INFORMATION: {
        auto body = packet.Get<DR_DRIVE_SET_INFORMATION_REQ>();
        text.Add("\n      SET(FsInfoClass:%d, Length:%d)", static_cast<int>(body.FsInformationClass),
                 static_cast<int>(body.Length));
        break;
    }
    case IRP_MJ_QUERY_INFORMATION:
    case IRP_MJ_QUERY_VOLUME_INFORMATION:
        text.Add("\n      QUERY(FsInfoClass:%d)",
                 static_cast<int>(packet.Get<DR_DRIVE_QUERY_INFORMATION_REQ>().FsInformationClass));
        break;
    case IRP_MJ_LOCK_CONTROL: {
        auto body = packet.Get<DR_DRIVE_LOCK_REQ>();
        text.Add("\n      LOCK(Op:%d, F:%d, NumLocks:%d)", static_cast<int>(body.Operation),
                 static_cast<int>(body.F), static_cast<int>(body.NumLocks));
        break;
    }
    default:
        break;
    }
}

void DecodeIoRequest(const Packet &packet, Message &text)
{
    auto request = packet.Get<DR_DEVICE_IOREQUEST>();
    text.Add("[+%-2x] DEVICE_IOREQUEST(DeviceId:%x, FileId:%x, Major/Minor:%s/%s)", request.CompletionId,
             request.DeviceId, request.FileId, NameOf(request.MajorFunction, kMajorNames, ""),
             NameOf(request.MinorFunction, kMinorNames, "NA"));
    AddBody(packet, request, text);
}

void DecodeIoCompletion(const Packet &packet, Message &text)
{
    auto completion = packet.Get<DR_DEVICE_IOCOMPLETION>();
    auto body = packet.Get<DR_CREATE_RSP>(); // of another major these are other fields
    text.Add("[-%-2x] DEVICE_IOCOMPLETION(DeviceId:%x, IoStatus:%x, %x, %x)", completion.CompletionId,
             completion.DeviceId, completion.IoStatus, body.FileId, body.Information);
}

struct Row {
    uint16_t packetId;
    size_t needs;         // bytes
    const char *tooSmall; // the text below that
    void (*decode)(const Packet &packet, Message &text);
    bool dumped = false; // when all bytes are asked for
};

constexpr Row kRows[] = {
    {PAKID_CORE_SERVER_ANNOUNCE, 12, "SERVER_ANNOUNCE(TOO SMALL)", DecodeServerAnnounce},
    {PAKID_CORE_CLIENTID_CONFIRM, 12, "CLIENTID_CONFIRM(TOO SMALL)", DecodeClientIdConfirm},
    {PAKID_CORE_CLIENT_NAME, 16, "CLIENT_NAME(TOO SMALL)", DecodeClientName},
    {PAKID_CORE_DEVICELIST_ANNOUNCE, 8, "DEVICELIST_ANNOUNCE(TOO SMALL)", DecodeDeviceListAnnounce},
    {PAKID_CORE_DEVICE_REPLY, 12, "DEVICE_REPLY(TOO SMALL)", DecodeDeviceReply},
    {PAKID_CORE_DEVICE_IOREQUEST, kMinRequestSize, "DEVICE_IOREQUEST(TOO SMALL!)", DecodeIoRequest, true},
    {PAKID_CORE_DEVICE_IOCOMPLETION, kMinCompletionSize, "DEVICE_IOCOMPLETION(TOO SMALL!)",
     DecodeIoCompletion, true},
    {PAKID_CORE_SERVER_CAPABILITY, 8, "SERVER_CAPABILITY(TOO SMALL)", DecodeServerCapability},
    {PAKID_CORE_CLIENT_CAPABILITY, 8, "CLIENT_CAPABILITY(TOO SMALL)", DecodeClientCapability},
    {PAKID_CORE_DEVICELIST_REMOVE, 0, "",
     [](const Packet &, Message &text) { text.Add("DEVICELIST_REMOVE()"); }},
    {PAKID_CORE_USER_LOGGEDON, 0, "",
     [](const Packet &, Message &text) { text.Add("DR_CORE_USER_LOGGEDON()"); }},
    {PAKID_PRN_CACHE_DATA, 0, "", [](const Packet &, Message &text) { text.Add("PAKID_PRN_CACHE_DATA()"); }},
    {PAKID_PRN_USING_XPS, 0, "", [](const Packet &, Message &text) { text.Add("PAKID_PRN_USING_XPS()"); }},
    {PAKID_PRIVATE_VERSION_EXCHANGE, 6, "VERSION_EXCHANGE(TOO SMALL)", DecodeVersionExchange},
    {PAKID_PRIVATE_POLICY, 4, "Agent Policy(TOO SMALL)", DecodePolicy},
};

// Whole words only.
void AddDump(std::string &out, const Packet &packet)
{
    constexpr size_t kWordsPerLine = 4;
    out += StringUtils::Format("\n0x%zx bytes:\n", packet.Size());
    for (size_t word = 0; word < packet.Size() / sizeof(uint32_t); ++word) {
        out += StringUtils::Format("%08x ", LoadLittle<uint32_t>(packet.At(word * sizeof(uint32_t))));
        if (word % kWordsPerLine == kWordsPerLine - 1)
            out += '\n';
    }
}

} // namespace

void SetFullPacketDump(bool on)
{
    fullDump.store(on, std::memory_order_relaxed);
}

void DecodePacket(std::string *out, const void *data, size_t size)
{
    Packet packet(data, size);
    HeaderText header;
    auto [component, packetId] = packet.Get<RDPDR_HEADER>();
    if (size < kWireSize<RDPDR_HEADER>) {
        *out = "RDPDR_HEADER{ TOO SMALL }";
        return;
    }
    if (component != RDPDR_CTYP_CORE && component != RDPDR_CTYP_PRN && component != RDPDR_CTYP_PRIVATE) {
        header.Add("RDPDR_HEADER{ Component:%x (UNKNOWN), PacketId:%x }", component, packetId);
        *out = header.Get();
        return;
    }
    // The component isn't part of the key.
    const Row *row = std::find_if(std::begin(kRows), std::end(kRows),
                                  [id = packetId](const Row &known) { return known.packetId == id; });
    if (row == std::end(kRows)) {
        header.Add("RDPDR_HEADER{ Component:%x, PacketId:%x (UNKNOWN) }", component, packetId);
        *out = header.Get();
        return;
    }
    if (size < row->needs) {
        *out = row->tooSmall;
        return;
    }
    Message text;
    row->decode(packet, text);
    *out = text.Get();
    if (row->dumped && fullDump.load(std::memory_order_relaxed))
        AddDump(*out, packet);
}

} // namespace fodr
