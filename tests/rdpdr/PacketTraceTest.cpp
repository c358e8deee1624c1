// What the trace says of packets, and what is counted of them.
#include "rdpdr/PacketTrace.h"

#include "AgentPackets.h"
#include "rdpdr/PacketAccounts.h"
#include "rdpdr/wire/PacketWords.h"
#include "runtime/CapturedLog.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <tuple>

namespace fodr::test {
namespace {

using Strings = std::vector<std::string>;

// Decoded from a heap block of exactly the packet's size, so that a byte outside is noticed.
std::string Decoded(const Bytes &packet)
{
    const Bytes exact(packet);
    std::string text = "left as it was";
    DecodePacket(&text, exact.data(), exact.size());
    return text;
}

Bytes With(Bytes packet, size_t offset, const Bytes &change)
{
    packet.resize(std::max(packet.size(), offset + change.size()));
    std::copy(change.begin(), change.end(), packet.begin() + static_cast<ptrdiff_t>(offset));
    return packet;
}

TEST(PacketTrace, SaysWhatAPacketCarries)
{
    EXPECT_EQ(TheWirePage().traces.size(), 21u);
    for (const auto &[heading, text] : TheWirePage().traces)
        EXPECT_EQ(Decoded(WireExample(heading)), text);
    const Bytes query = WireExample("Query information");
    const std::pair<Bytes, std::string> others[] = {
        {{10}, "QUERY_VOLUME/NA)\n      QUERY(FsInfoClass:4)"},
        {{11}, "SET_VOLUME/NA)"},
        {{99, 0, 0, 0, 7}, "/NA)"},
    };
    for (const auto &[major, text] : others)
        EXPECT_EQ(Decoded(With(query, 16, major)),
                  "[+b ] DEVICE_IOREQUEST(DeviceId:ffff, FileId:12c, Major/Minor:" + text);
    EXPECT_EQ(Decoded({0x52, 0x50, 0x43, 0x50}), "PAKID_PRN_CACHE_DATA()");
    EXPECT_EQ(Decoded({0x52, 0x50, 0x43, 0x55}), "PAKID_PRN_USING_XPS()");
    // The component isn't part of the key.
    EXPECT_EQ(Decoded({0xfe, 0xff, 0x4c, 0x55}), "DR_CORE_USER_LOGGEDON()");
    EXPECT_EQ(Decoded({0x72, 0x44, 0x11, 0x22}), "RDPDR_HEADER{ Component:4472, PacketId:2211 (UNKNOWN) }");
    EXPECT_EQ(Decoded({0x01, 0x02, 0x11, 0x22}), "RDPDR_HEADER{ Component:201 (UNKNOWN), PacketId:2211 }");
}

TEST(PacketTrace, SaysWhatThePolicysHeaderSays)
{
    const Bytes header = {0xfe, 0xff, 2, 0, 8, 0, 0, 0};
    EXPECT_EQ(Decoded(With(header, 8, {1, 1, 3, 0, 0, 0, 0, 0})), "Policy : Enabled Shared by Agent 3");
    EXPECT_EQ(Decoded(With(header, 8, {0, 0, 0, 0, 0, 0, 0, 0})), "Policy : Disabled No limit 0");
    // Too little for a header: what a client without a policy goes by.
    EXPECT_EQ(Decoded(Cut(header, 4)), "Policy : Enabled No limit 5");
    EXPECT_EQ(Decoded(With(header, 8, {0, 1, 1, 0, 0, 0, 0})), "Policy : Enabled No limit 5");
}

TEST(PacketTrace, SaysThatAPacketIsTooSmallAndNeverLeavesIt)
{
    const std::tuple<const char *, size_t, const char *> smallest[] = {
        {"Server announce", 12, "SERVER_ANNOUNCE(TOO SMALL)"},
        {"Client id confirm", 12, "CLIENTID_CONFIRM(TOO SMALL)"},
        {"Client name", 16, "CLIENT_NAME(TOO SMALL)"},
        {"Device list announce", 8, "DEVICELIST_ANNOUNCE(TOO SMALL)"},
        {"Device reply", 12, "DEVICE_REPLY(TOO SMALL)"},
        {"Create", 56, "DEVICE_IOREQUEST(TOO SMALL!)"},
        {"Create completion", 21, "DEVICE_IOCOMPLETION(TOO SMALL!)"},
        {"Server capability", 8, "SERVER_CAPABILITY(TOO SMALL)"},
        {"Client capability", 8, "CLIENT_CAPABILITY(TOO SMALL)"},
        {"Version exchange", 6, "VERSION_EXCHANGE(TOO SMALL)"},
    };
    for (const auto &[heading, needed, text] : smallest) {
        const Bytes &packet = WireExample(heading);
        for (size_t size = 0; size <= packet.size(); ++size) {
            std::string expected = size < 4 ? "RDPDR_HEADER{ TOO SMALL }" : text;
            EXPECT_EQ(Decoded(Cut(packet, size)) == expected, size < needed) << heading << " " << size;
        }
    }
    EXPECT_EQ(Decoded(Cut(WireExample("Version exchange"), 6)), "VERSION_EXCHANGE(Version:6 caps:0x0)");
    SetFullPacketDump(true);
    for (const auto &[heading, packet] : WireExamples()) {
        for (size_t size = 0; size <= packet.size(); ++size)
            Decoded(Cut(packet, size));
    }
    SetFullPacketDump(false);
}

TEST(PacketTrace, ADeviceListStopsAtTheLastFixedPartThatFits)
{
    Bytes two = WireExample("Device list announce");
    const Bytes second = {8, 0, 0, 0, 2, 0, 0, 0, 'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 0, 0, 0, 0};
    two[4] = 200; // DeviceCount
    const std::string begin = Decoded(two);
    two = With(two, two.size(), second);
    EXPECT_EQ(Decoded(two), begin + " DeviceType: 8, DeviceId: 2, DosName: abcdefgh, DeviceDataLength: 0 "
                                    "DeviceData:[N/A]");
    EXPECT_EQ(Decoded(Cut(two, two.size() - 1)), begin);
    // A length beyond the packet shows what is there and ends the list.
    Bytes lying = With(two, 24, {0xff, 0xff, 0xff, 0xff});
    EXPECT_THAT(Decoded(lying), testing::EndsWith("DeviceDataLength: -1 DeviceData:documents"));
}

TEST(PacketTrace, TextsOfThePacketEndWithIt)
{
    Bytes create = WireExample("Create");
    EXPECT_THAT(Decoded(With(create, 52, {0xff, 0xff, 0xff, 0xff})),
                testing::EndsWith("PathLength: -1 Path:\\a.txt)"));
    EXPECT_THAT(Decoded(Cut(create, 61)), testing::EndsWith("Path:\\a)")); // half a unit is none
    EXPECT_THAT(Decoded(With(create, 58, {0x00, 0xd8, 0xe4, 0x00})),       // an unpaired surrogate
                testing::EndsWith("Path:\\\uFFFD\u00e4txt)"));
    // A text that is too long is cut.
    Bytes longPath = With(With(create, 52, {0, 16, 0, 0}), 56, Bytes(4096, 'a'));
    EXPECT_EQ(Decoded(longPath).size(), 1023u);
}

TEST(PacketTrace, TheFullDumpShowsWholeWordsFourToALine)
{
    SetFullPacketDump(true);
    std::string dumped = Decoded(WireExample("Create completion"));
    std::string other = Decoded(WireExample("Device reply"));
    SetFullPacketDump(false);
    EXPECT_EQ(dumped, "[-7 ] DEVICE_IOCOMPLETION(DeviceId:ffff, IoStatus:0, 12c, 1)\n"
                      "0x15 bytes:\n"
                      "49434472 0000ffff 00000007 00000000 \n"
                      "0000012c ");
    EXPECT_EQ(other, "DEVICE_REPLY(DeviceId: 65535, ResultCode: 0)");
}

TEST(PacketTrace, NamesTheArgumentsOfACreate)
{
    DR_CREATE_REQ create{0x80010001, 0, 0x10080, 7, 5, 0x800041, 0};
    EXPECT_EQ(
        CreateFlagsText(create),
        "\n    Desired Access: [ FILE_READ_DATA/FILE_LIST_DIRECTORY DELETE GENERIC_READ ]"
        " FileAttribute: [ FILE_ATTRIBUTE_NORMAL FILE_ATTRIBUTE_VIRTUAL ]"
        " ShareAccess: [ FILE_SHARE_READ FILE_SHARE_WRITE FILE_SHARE_DELETE ]"
        " CreateDisposition: [ FILE_OVERWRITE_IF ]"
        " CreateOptions: [ FILE_DIRECTORY_FILE FILE_NON_DIRECTORY_FILE FILE_OPEN_FOR_FREE_SPACE_QUERY ]");
    EXPECT_EQ(CreateFlagsText({0, 0, 0, 0, 6, 0, 0}),
              "\n    Desired Access: [ ] FileAttribute: [ ] ShareAccess: [ ] CreateDisposition: [ ]"
              " CreateOptions: [ ]");
}

TEST(BandwidthCounter, AddsUpPacketsOfAKindWhicheverWayTheyGo)
{
    CapturedLog log(LOG_LEVEL_INFO);
    BandwidthCounter counter;
    counter.Log(); // of nothing: no rows
    counter.Start(0);
    auto received = [&](const Bytes &packet) { counter.ReceivedBytes(packet.data(), packet.size()); };
    const Bytes policy = {0xfe, 0xff, 2, 0};
    received(policy);
    received(WireExample("Close"));
    received(WireExample("Read"));
    counter.SentBytes(WireExample("Read").data(), 44);
    received(WireExample("Data completion"));
    received({0x72, 0x44, 0x34, 0x12});
    received({0x72, 0x44, 0x52, 0x49}); // a request without a major: a create
    received({0x72});                   // no id at all: the same key
    counter.ReceivedBytes(nullptr, 100);
    counter.Stop();
    counter.Log();
    const Strings texts = {
        "Total data transport: 0.000MB.",
        "Total data transport: 0.000MB.",
        "(CREATE); 5 bytes over 2 packets; Average = 2 bytes per packet (2.57732%)",
        "(CLOSE); 60 bytes over 2 packets; Average = 30 bytes per packet (30.92784%)",
        "(READ); 100 bytes over 2 packets; Average = 50 bytes per packet (51.54639%)",
        "(Unknown(1234)); 4 bytes over 1 packets; Average = 4 bytes per packet (2.06186%)",
        "(CORE_DEVICE_IOCOMPLETION); 25 bytes over 1 packets; Average = 25 bytes per packet (12.88660%)",
    };
    Strings lines;
    for (const std::string &text : texts)
        lines.push_back("I BandwidthCounter::Log(): " + text + "\n");
    EXPECT_EQ(CapturedLog::Lines(), lines);
}

} // namespace
} // namespace fodr::test
