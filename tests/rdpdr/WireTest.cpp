// Records and builders give the very bytes that docs/wire.md shows.
#include "AgentPackets.h"
#include "WireExamples.h"
#include "lib/misc/ByteBuffer.h"
#include "platform/NtRecords.h"
#include "rdpdr/wire/RdpdrPacker.h"
#include "rdpdr/wire/RdpdrStream.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <utility>

namespace fodr::test {
namespace {

template <wire::Record Body>
Bytes RequestOf(uint32_t completionId, uint32_t major, uint32_t minor, const Body &body,
                const Bytes &behind = {})
{
    DR_DEVICE_IOREQUEST request{0xFFFF, major == IRP_MJ_CREATE ? 0u : 300u, completionId, major, minor, {}};
    request.SetBody(body);
    return PacketOf(request, behind);
}

TEST(WireRecords, AreTheDocumentedBytes)
{
    const Bytes zeroEnded = {'d', 'o', 'c', 'u', 'm', 'e', 'n', 't', 's', 0};
    const DEVICE_ANNOUNCE share{.DeviceId = 0xFFFF | 3u << kDevicePermissionShift,
                                .PreferredDosName = {'d', 'o', 'c', 'u', 'm', 'e', 'n', 0},
                                .DeviceDataLength = 10};
    const Bytes rename = RecordOf(RDP_FILE_RENAME_INFORMATION{1, 0, 6}, Utf16({u"\\b\0", 3}));
    const std::pair<const char *, Bytes> examples[] = {
        {"Server announce", PacketOf(DR_CORE_SERVER_ANNOUNCE_REQ{.ClientId = 0x12345678})},
        {"Client id confirm", PacketOf(DR_CORE_CLIENT_ANNOUNCE_RSP{.ClientId = 0x12345678})},
        {"Client name", PacketOf(DR_CORE_CLIENT_NAME_REQ{.ComputerNameLen = 6}, Utf16({u"PC\0", 3}))},
        {"Server capability", PacketOf(DR_CORE_CAPABILITY_REQ{5, 0})},
        {"Client capability", PacketOf(DR_CORE_CAPABILITY_RSP{})},
        {"Version exchange", PacketOf(FODR_VERSION_EXCHANGE{})},
        {"Policy", PacketOf(FODR_POLICY{16})},
        {"Device list announce", PacketOf(DR_CORE_DEVICELIST_ANNOUNCE_REQ{}, RecordOf(share, zeroEnded))},
        {"Drive letter mapping", RecordOf(FODR_DRIVE_LETTER_MAPPING{.Length = 4}, {'C', ':', '\\', 0})},
        {"Device list remove", PacketOf(DR_DEVICELIST_REMOVE{.DeviceId = 0xFFFF})},
        {"Device reply", PacketOf(DR_CORE_DEVICE_ANNOUNCE_RSP{0xFFFF, 0})},
        {"Create", RequestOf(7, IRP_MJ_CREATE, 0, DR_CREATE_REQ{0x120089, 4096, 0x80, 7, 1, 0x40, 14},
                             Utf16({u"\\a.txt\0", 7}))},
        {"Close", PacketOf(DR_DEVICE_IOREQUEST{0xFFFF, 300, 8, IRP_MJ_CLOSE, 0, {}})},
        {"Read", RequestOf(9, IRP_MJ_READ, 0, DR_READ_REQ{4096, 1ull << 32})},
        {"Write", RequestOf(10, IRP_MJ_WRITE, 0, DR_WRITE_REQ{2, 1ull << 32}, {'h', 'i'})},
        {"Query information", RequestOf(11, IRP_MJ_QUERY_INFORMATION, 0, DR_DRIVE_QUERY_INFORMATION_REQ{4})},
        {"Set information",
         RequestOf(12, IRP_MJ_SET_INFORMATION, 0, DR_DRIVE_SET_INFORMATION_REQ{10, 12}, rename)},
        {"Query directory", RequestOf(13, IRP_MJ_DIRECTORY_CONTROL, IRP_MN_QUERY_DIRECTORY,
                                      DR_DRIVE_QUERY_DIRECTORY_REQ{3, 1, 6}, Utf16({u"\\*\0", 3}))},
        {"Notify change directory", RequestOf(14, IRP_MJ_DIRECTORY_CONTROL, IRP_MN_NOTIFY_CHANGE_DIRECTORY,
                                              DR_DRIVE_NOTIFY_CHANGE_DIRECTORY_REQ{1, 0x17})},
        {"Device control",
         RequestOf(15, IRP_MJ_DEVICE_CONTROL, 0, DR_CONTROL_REQ{16, 4, 0x900C4}, {1, 2, 3, 4})},
        {"Lock control", RequestOf(16, IRP_MJ_LOCK_CONTROL, 0,
                                   DR_DRIVE_LOCK_REQ{RDP_LOWIO_OP_EXCLUSIVELOCK, kLockFailImmediately, 1},
                                   RecordOf(RDP_LOCK_INFO{100, 512}))},
    };
    for (const auto &[heading, bytes] : examples)
        EXPECT_EQ(bytes, WireExample(heading)) << heading;
}

Bytes BytesOf(const RdpdrStreamPtr &stream)
{
    return stream ? Bytes(stream->Base(), stream->Base() + stream->Size()) : Bytes();
}

TEST(CompletionBuilder, GivesTheDocumentedBytes)
{
    uint8_t *deviceId = nullptr;
    RdpdrStreamPtr create = BuildIoCompletion(0xFFFF, 7, 0, 0, &deviceId);
    StoreRecord(DR_CREATE_RSP{300, 1}, deviceId + kBodyFromDeviceId);
    EXPECT_EQ(BytesOf(create), WireExample("Create completion"));

    RdpdrStreamPtr preRead = BuildIoCompletion(0xFFFF, 7, 0, 28 + 1, &deviceId);
    StoreRecord(DR_CREATE_RSP{300, 1}, deviceId + kBodyFromDeviceId);
    uint8_t *block = preRead->Base() + kPreReadBlock;
    StoreRecord(FODR_PRE_READ_BLOCK{28, 1}, block);
    StoreRecord(FODR_PRE_READ_ENTRY{5, 35, 8}, block + 8);
    block[20] = 0x20;
    EXPECT_EQ(BytesOf(preRead), WireExample("Create completion with pre-read"));

    EXPECT_EQ(BytesOf(BuildDataCompletion(0xFFFF, 9, 0, "hello", 5)), WireExample("Data completion"));

    RdpdrStreamPtr length = BuildIoCompletion(0xFFFF, 10, 0, 0, &deviceId);
    StoreRecord(DR_LENGTH_RSP{2}, deviceId + kBodyFromDeviceId);
    EXPECT_EQ(BytesOf(length), WireExample("Length completion"));
}

TEST(CompletionBuilder, IsNeverShorterThanACreate)
{
    for (auto [bodySize, total] : {std::pair<size_t, int32_t>{0, 21}, {1, 21}, {2, 22}, {100, 120}})
        EXPECT_EQ(BuildIoCompletion(1, 2, 0, bodySize, nullptr)->Size(), total) << bodySize;
    EXPECT_EQ(BuildDataCompletion(1, 2, 0, nullptr, 0)->Size(), 21);
    // More than a packet can be.
    uint8_t *deviceId = nullptr;
    EXPECT_FALSE(BuildIoCompletion(1, 2, 0, size_t{1} << 31, &deviceId));
    EXPECT_EQ(deviceId, nullptr);
    EXPECT_FALSE(BuildDataCompletion(1, 2, 0, "", SIZE_MAX));
}

using namespace nt;

// Packs a native listing entry, which is a block that has not a byte to spare.
Bytes Pack(uint32_t infoClass, const Bytes &entry)
{
    MallocBuffer native = MallocBuffer::Allocate(entry.size());
    memcpy(native.Data(), entry.data(), entry.size());
    uint8_t *out = nullptr;
    uint32_t length = 0;
    EXPECT_EQ(
        RdpdrPacker("\\??\\C:")
            .PackDirectoryEntry(infoClass, native.Data(), static_cast<uint32_t>(entry.size()), &out, &length),
        STATUS_SUCCESS);
    Bytes packed(out, out + length);
    MallocBuffer made(out != native.Data() ? out : nullptr, length);
    return packed;
}

TEST(RdpdrPacker, AnEntryEndsWithItsNameOrTheBytesThatThereAre)
{
    const struct {
        uint32_t infoClass;
        size_t nameLengthOffset, nameOffset;
    } classes[] = {
        {FileDirectoryInformation, 60, 64},
        {FileFullDirectoryInformation, 60, 68},
        {FileBothDirectoryInformation, 60, 94},
        {FileNamesInformation, 8, 12},
    };
    for (const auto &c : classes) {
        for (uint32_t nameLength : {0u, 4u, 6u, 7u, 1000u, 0xFFFFFFFFu}) {
            Bytes entry(c.nameOffset + 6);
            for (size_t i = 0; i < entry.size(); ++i)
                entry[i] = static_cast<uint8_t>(i);
            StoreLittle(&entry[c.nameLengthOffset], nameLength);
            Bytes wire = Cut(entry, c.nameOffset + std::min(nameLength, 6u));
            if (c.infoClass == FileBothDirectoryInformation)
                wire.erase(wire.begin() + 69); // reserved, before ShortName
            EXPECT_EQ(Pack(c.infoClass, entry), wire) << c.infoClass << " " << nameLength;
        }
        EXPECT_EQ(Pack(c.infoClass, Bytes(11, 0xFF)), Bytes(11, 0xFF)); // not even a fixed part
    }
    EXPECT_EQ(Pack(FileIdBothDirectoryInformation, Bytes(50, 4)), Bytes(50, 4));
}

struct Native {
    NTSTATUS status;
    bool sameBlock;
    Bytes bytes;
    bool operator==(const Native &) const = default;
};

// A set request's buffer, of which `length` bytes are told.
Native Unpack(uint32_t infoClass, Bytes wire, size_t length)
{
    RdpdrPacker packer(std::string("\\??\\C:")); // makes its own copy of the root
    uint8_t *out = nullptr;
    auto outLength = static_cast<uint32_t>(length);
    NTSTATUS status = packer.UnpackSetInformation(infoClass, wire.data(), outLength, &out, &outLength);
    Native native{status, out && out == wire.data(), out ? Bytes(out, out + outLength) : Bytes()};
    MallocBuffer made(native.sameBlock ? nullptr : out, outLength);
    return native;
}

TEST(RdpdrPacker, PassesSetBuffersOnWhereTheFormsAgree)
{
    EXPECT_EQ(Unpack(FileBasicInformation, Bytes(40, 7), 36), (Native{STATUS_SUCCESS, true, Bytes(40, 7)}));
    EXPECT_EQ(Unpack(FileEndOfFileInformation, Bytes(8, 1), 8), (Native{STATUS_SUCCESS, true, Bytes(8, 1)}));
    EXPECT_EQ(Unpack(FileDispositionInformation, {0}, 1), (Native{STATUS_SUCCESS, true, {0}}));
    EXPECT_EQ(Unpack(FileDispositionInformation, {0}, 0), (Native{STATUS_SUCCESS, false, {1}}));
}

TEST(RdpdrPacker, RenamesToANameBelowTheRoot)
{
    const Bytes request = WireExample("Set information");
    Bytes wire(request.begin() + 56, request.end());
    wire[1] = 0xFF;                                                     // RootDirectory is ignored
    const Bytes name = Utf16(std::u16string_view(u"\\??\\C:\\b\0", 9)); // root and wire name
    Bytes native(name.size() + 24);
    native[0] = 1;
    native[16] = static_cast<uint8_t>(name.size() - 2); // the zero counted off
    std::copy(name.begin(), name.end(), native.begin() + 20);
    EXPECT_EQ(Unpack(FileRenameInformation, wire, wire.size()), (Native{STATUS_SUCCESS, false, native}));
    // A name that isn't there, or not all of it.
    const Native refused{STATUS_INVALID_PARAMETER, false, {}};
    for (size_t size = 0; size < wire.size(); ++size)
        EXPECT_EQ(Unpack(FileRenameInformation, Cut(wire, size), size), refused) << size;
    for (uint32_t lying : {0u, 1u, 7u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        StoreLittle(wire.data() + 2, lying);
        EXPECT_EQ(Unpack(FileRenameInformation, wire, wire.size()), refused) << lying;
    }
}

TEST(RdpdrStream, IsZeroFilledAndNullsThePointerItIsFreedBy)
{
    RdpdrStream *stream = RdpdrStream::Create(100);
    EXPECT_EQ(Bytes(stream->Base(), stream->Base() + 100), Bytes(100));
    RdpdrStream::Free(&stream);
    EXPECT_EQ(stream, nullptr);
    RdpdrStream::Free(&stream);
    RdpdrStream::Free(nullptr);
    EXPECT_EQ(RdpdrStream::Create(size_t{INT_MAX} + 1), nullptr);
}

TEST(RdpdrStream, KeepsItsCursorInside)
{
    uint8_t packet[] = {1, 2, 3};
    RdpdrStream stream(packet, sizeof(packet));
    EXPECT_TRUE(stream.SetPosition(2));
    EXPECT_FALSE(stream.SetPosition(3));
    EXPECT_FALSE(stream.SetPosition(SIZE_MAX));
    EXPECT_FALSE(stream.Write("ab", 2));
    Bytes out(3, 9);
    EXPECT_TRUE(stream.Read(out.data(), 3));
    EXPECT_EQ(out, (Bytes{3, 0, 0})); // zeros past the end
    EXPECT_EQ(stream.Remaining(), 0u);
    EXPECT_FALSE(stream.Read(nullptr, 1));
    EXPECT_TRUE(stream.SetPosition(1));
    EXPECT_TRUE(stream.Write("a", 1));
    EXPECT_EQ(packet[1], 'a');
    EXPECT_EQ(stream.Position(), 2u);

    RdpdrStreamPtr empty(RdpdrStream::Create(0));
    EXPECT_EQ(empty->Base(), nullptr);
    EXPECT_FALSE(empty->SetPosition(0));
    EXPECT_TRUE(empty->Read(out.data(), 1));
    EXPECT_EQ(out[0], 0);
}

} // namespace
} // namespace fodr::test
