// Every packet that the agent sends, byte for byte, and the policy block in its two forms.
#include "ScriptedPlugin.h"
#include "WireExamples.h"
#include "agent/SharePackets.h"
#include "platform/Nt.h"
#include "platform/NtRecords.h"

#include <functional>
#include <sstream>

namespace fodr::agent {
namespace {

Bytes Hex(const std::string &text)
{
    std::istringstream stream(text);
    Bytes bytes;
    for (unsigned byte = 0; stream >> std::hex >> byte;)
        bytes.push_back(static_cast<uint8_t>(byte));
    return bytes;
}

TEST(PolicyBlock, HasTheFormOfItsVersion)
{
    PolicyOptions full;
    full.defaultPermission = 3;
    full.folders = {{2, "C:"}, {0, "*all"}};
    full.excludeRule = "ex";
    full.includeRule = "i";
    PolicyOptions off;
    off.enabled = off.sharedByAgent = false;
    const std::string folders = "02 00 00 00 02 00 00 00 43 3a  00 00 00 00 04 00 00 00 2a 61 6c 6c";
    const struct {
        PolicyOptions options;
        uint16_t version;
        std::string bytes;
    } cases[] = {
        {off, 2, "fe ff 02 00  08 00 00 00  00 00 05 00 00 00 00 00"},
        {off, 5, "fe ff 02 00  10 00 00 00  00 00 05 00 00 00 00 00  00 00 00 00  00 00 00 00"},
        {full, 4, "fe ff 02 00  1e 00 00 00  01 01 03 00 00 00 00 00 " + folders},
        {full, 6,
         "fe ff 02 00  31 00 00 00  01 01 03 00 00 00 00 00  16 00 00 00 " + folders +
             " 0b 00 00 00  02 00 00 00 65 78  01 00 00 00 69"},
    };
    for (const auto &row : cases)
        EXPECT_EQ(MakePolicyPacket(row.options, row.version), Hex(row.bytes)) << row.version;
}

using Handshake = ClientTest;

TEST_F(Handshake, SaysWhoItIsThenAllTheRestAtOnce)
{
    ClientOptions options;
    options.preRead = true;
    Start(options);
    plugin->SayHello();
    for (const char *frame :
         {"hello 1 2 10000 30000 ", "announce 1 13 48 fodrControlObj", "announce 2 13 48 fodrDataObj"})
        EXPECT_EQ(plugin->heard.Take(), frame);
    plugin->ConnectObjects();
    Bytes announce = plugin->Take();
    Bytes confirm = announce;
    std::copy_n(announce.begin() + 8, 4, confirm.begin() + 8);
    StoreLittle<uint16_t>(&confirm[2], PAKID_CORE_CLIENTID_CONFIRM);
    plugin->Send(confirm);
    const Bytes example = WireExample("Server announce");
    EXPECT_EQ(Bytes(announce.begin(), announce.begin() + 8), Bytes(example.begin(), example.begin() + 8));
    EXPECT_EQ(plugin->Take(), Hex("72 44 50 53 00 00 00 00"));
    EXPECT_EQ(plugin->Take(), Hex("fe ff 01 00 06 00 03 00"));
    EXPECT_EQ(plugin->Take(), MakePolicyPacket(options.policy, 6));
    EXPECT_EQ(plugin->Take(), Hex("72 44 4c 55"));
}

TEST_F(Handshake, RefusesWithOneReason)
{
    const struct {
        std::string token;
        Bytes packet;
        std::string reason;
    } cases[] = {
        {"wrong", {}, "the host doesn't know the token of this session"},
        {"right", Hex("72 44 43 43 01 00 0c 00 00 00"), "the plug-in's client id confirm is too short"},
        {"right", Hex("72 44"), "the plug-in sent a packet of 2 bytes"},
        {"right", Hex("72 44 43 49 00 00 00 00 00 00 00"), "the plug-in sent a completion of 11 bytes"},
        {"right", Hex("72 44 41 44 01 00 00 00 08 00"),
         "the plug-in's device announcement leaves its packet"},
        {"right", Hex("72 44 4d 44 02 00 00 00 ff ff 00 00"),
         "the plug-in's device removal leaves its packet"},
    };
    for (const auto &row : cases) {
        ClientOptions options;
        options.expectedToken = "right";
        Start(options);
        plugin->SayHello(row.token);
        if (!row.packet.empty())
            plugin->Send(row.packet);
        const auto [end, reason] = ends.Take();
        EXPECT_EQ(end, ChannelEnd::Refused);
        EXPECT_EQ(reason, row.reason);
        std::string heard = plugin->heard.Take();
        while (!heard.starts_with("goodbye"))
            heard = plugin->heard.Take();
        EXPECT_EQ(heard, "goodbye " + row.reason);
        client.reset();
        plugin.reset();
    }
}

// Who hasn't shown the token isn't listened to.
TEST_F(Handshake, BeginsWithHello)
{
    const std::function<void()> firsts[] = {
        [&] { plugin->ConnectObjects(); },
        [&] { plugin->Send(PacketOf(DR_CORE_DEVICELIST_ANNOUNCE_REQ{})); },
        [&] { plugin->SayGoodbye(); },
    };
    for (const auto &first : firsts) {
        ClientOptions options;
        options.expectedToken = "right";
        Start(options);
        first();
        const auto [end, reason] = ends.Take();
        EXPECT_EQ(end, ChannelEnd::Refused);
        EXPECT_EQ(reason, "the host didn't say hello first");
        client.reset();
        plugin.reset();
    }
}

using SentRequest = ClientTest;

// The examples of the page, but for the numbers that the client chooses.
TEST_F(SentRequest, IsAsDocumented)
{
    StartWithShare();
    const auto ignore = [](const IoResult &) {};
    const uint32_t file = 0x12C;
    const uint8_t hi[] = {'h', 'i'}, input[] = {1, 2, 3, 4};
    const RDP_LOCK_INFO range[] = {{.Length = 100, .Offset = 0x200}};
    share->Create({.desiredAccess = 0x120089,
                   .createDisposition = 1,
                   .createOptions = 0x40,
                   .fileAttributes = 0x80,
                   .allocationSize = 0x1000},
                  u"\\a.txt", ignore);
    share->Close(file, ignore);
    share->Read(file, 0x100000000, 0x1000, ignore);
    share->Write(file, 0x100000000, hi, ignore);
    share->QueryInformation(file, 4, ignore);
    share->Rename(file, u"\\b", true, ignore);
    share->QueryDirectory(file, 3, true, u"\\*", ignore);
    share->NotifyChange(file, 0x17, true, ignore);
    share->DeviceControl(file, nt::FSCTL_SET_SPARSE, input, 16, ignore);
    share->Lock(file, RDP_LOWIO_OP_EXCLUSIVELOCK, true, range, ignore);
    for (const char *heading :
         {"Create", "Close", "Read", "Write", "Query information", "Set information", "Query directory",
          "Notify change directory", "Device control", "Lock control"}) {
        Bytes sent = plugin->Take(), example = WireExample(heading);
        std::copy_n(example.begin() + 12, 4, sent.begin() + 12); // CompletionId
        EXPECT_EQ(sent, example) << heading;
    }
}

TEST_F(SentRequest, CarriesALongPathAndALargePayloadWhole)
{
    StartWithShare();
    const std::u16string path = u"\\" + std::u16string(5000, u'x');
    const Bytes data(3 << 20, 0x5A);
    share->Create({}, path, [](const IoResult &) {});
    share->Write(1, 0, data, [](const IoResult &) {});
    EXPECT_EQ(plugin->TakeRequest().Payload().size(), 2 * 5002u);
    EXPECT_EQ(plugin->TakeRequest().Payload(), data);
}

} // namespace
} // namespace fodr::agent
