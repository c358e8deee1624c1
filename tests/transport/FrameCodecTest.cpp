#include "transport/FrameCodec.h"

#include "transport/FrameRecorder.h"

#include <gtest/gtest.h>
#include <random>

namespace fodr::test {
namespace {

using namespace transport;
using Bytes = std::vector<std::byte>;

Bytes Join(const MessageBlocks &message)
{
    Bytes all;
    for (const platform::ByteView block : message.Blocks())
        all.insert(all.end(), block.begin(), block.end());
    return all;
}

Secret ASecret()
{
    Secret secret{};
    for (size_t i = 0; i < secret.size(); ++i)
        secret[i] = static_cast<std::byte>('a' + i);
    return secret;
}

Message AMessage(std::initializer_list<Parameter> parameters)
{
    Message message{.object = 2, .requestId = 7, .command = 9, .flags = Message::kPost};
    for (const Parameter &parameter : parameters)
        message.parameters[message.parameterCount++] = parameter;
    return message;
}

Parameter Block(std::string_view text)
{
    return {.isBlock = true, .block = std::as_bytes(std::span(text))};
}

struct GoodFrame {
    Bytes bytes;
    std::string heard;
};

std::vector<GoodFrame> GoodFrames()
{
    return {
        {EncodeFrame(Hello{.role = Role::Agent, .keepAlive = {1, 2}, .token = "key"}), "hello 1 2 1 2 key"},
        {EncodeFrame(ObjectAnnounce{3, 0x4D, 0x30, "fodrDataObj"}), "announce 3 77 48 fodrDataObj"},
        {EncodeFrame(ObjectState{3, -1}), "state 3 -1"},
        {Join(MessageBlocks(AMessage({}))), "message 2 7 9 1"},
        {Join(MessageBlocks(AMessage({Block("ab"), {.number = 77}, Block(""), {.number = 5}, Block("c")}))),
         "message 2 7 9 1 [ab] 77 [] 5 [c]"},
        {EncodeFrame(MessageDone{3, 8}), "done 3 8"},
        {EncodeFrame(MessageAbort{3, 8, 9}), "abort 3 8 9"},
        {EncodeFrame(SideRequest{3, 2}), "side request 3 2"},
        {EncodeFrame(SideOffer{3, 65535, ASecret()}), "side offer 3 65535 abcdefghijklmnop"},
        {EncodeFrame(SideRefused{3, "why"}), "side refused 3 why"},
        {EncodeFrame(SideHello{.object = 3, .secret = ASecret()}), "side hello 3 abcdefghijklmnop"},
        {EncodeFrame(SideReady{3}), "side ready 3"},
        {EncodeFrame(Ping{}), "ping"},
        {EncodeFrame(Pong{}), "pong"},
        {EncodeFrame(Notice{NoticeKind::Mounted, "/mnt"}), "notice 1 /mnt"},
        {EncodeFrame(Goodbye{"done"}), "goodbye done"},
    };
}

// Feeds a stream of bytes in pieces of `step`; what was heard, and the fault that ended it.
std::string Feed(platform::ByteView bytes, size_t step)
{
    FrameBuffer buffer;
    FrameRecorder recorder;
    while (!bytes.empty()) {
        const std::span<std::byte> room = buffer.Room();
        const size_t count = std::min({step, bytes.size(), room.size()});
        std::copy_n(bytes.begin(), count, room.begin());
        buffer.Added(count);
        bytes = bytes.subspan(count);
        FrameHeader header;
        platform::ByteView body;
        const char *fault = nullptr;
        for (;;) {
            const FrameBuffer::Outcome outcome = buffer.Next(&header, &body, &fault);
            if (outcome == FrameBuffer::Outcome::NeedMore)
                break;
            if (outcome == FrameBuffer::Outcome::Frame)
                fault = DecodeFrame(header.type, body, &recorder);
            if (fault != nullptr)
                return recorder.Heard() + "fault: " + fault;
        }
    }
    return recorder.Heard();
}

TEST(Frames, ArriveAsTheyWereSentHoweverTheyAreCut)
{
    Bytes all;
    std::string heard;
    for (const GoodFrame &frame : GoodFrames()) {
        all.insert(all.end(), frame.bytes.begin(), frame.bytes.end());
        heard += frame.heard + "\n";
    }
    for (const size_t step : {size_t{1}, size_t{7}, size_t{64}, all.size()})
        EXPECT_EQ(Feed(all, step), heard) << step;
}

TEST(Frames, HaveTheDocumentedBytes)
{
    const uint8_t wanted[] = {0x1d, 0, 0, 0, 4, 0,    0, 0, 2, 0, 0, 0, 7, 0,   0,   0,   0,   0,  0,
                              0,    1, 0, 1, 0, 0x41, 0, 0, 0, 5, 0, 0, 0, 'h', 'e', 'l', 'l', 'o'};
    Message message = AMessage({Block("hello")});
    message.command = 0;
    const Bytes got = Join(MessageBlocks(message));
    const platform::ByteView expected = std::as_bytes(std::span(wanted));
    EXPECT_EQ(got, Bytes(expected.begin(), expected.end()));
}

TEST(Frames, AnyPrefixOrExtensionOfABodyIsRefused)
{
    for (const GoodFrame &frame : GoodFrames()) {
        const size_t whole = frame.bytes.size() - kFrameHeaderSize;
        for (size_t size = 0; size <= whole + 1; ++size) {
            // A buffer of just its size, so that a sanitizer sees every step outside.
            Bytes body(size);
            std::copy_n(frame.bytes.begin() + kFrameHeaderSize, std::min(size, whole), body.begin());
            FrameRecorder recorder;
            const char *fault = DecodeFrame(static_cast<FrameType>(frame.bytes[4]), body, &recorder);
            EXPECT_EQ(fault == nullptr, size == whole) << frame.heard << " " << size;
            EXPECT_EQ(recorder.Heard(), size == whole ? frame.heard + "\n" : "");
        }
    }
}

TEST(Frames, MutatedOnesNeverLeaveTheBuffer)
{
    std::mt19937 random(1);
    const std::vector<GoodFrame> frames = GoodFrames();
    size_t refused = 0;
    for (int round = 0; round < 8000; ++round) {
        Bytes bytes = frames[random() % frames.size()].bytes;
        const Bytes &second = frames[random() % frames.size()].bytes;
        bytes.insert(bytes.end(), second.begin(), second.end());
        for (uint32_t changes = 1 + random() % 4; changes > 0; --changes)
            bytes[random() % bytes.size()] = static_cast<std::byte>(random());
        refused += Feed(bytes, 1 + random() % 40).find("fault") != std::string::npos;
    }
    EXPECT_GT(refused, 800u);
}

TEST(Frames, LimitsHoldOnBothSides)
{
    const Bytes largest(kMaxFrameBody);
    const auto message = [&](size_t size) {
        return Join(
            MessageBlocks(AMessage({{.isBlock = true, .block = platform::ByteView(largest).first(size)}})));
    };
    EXPECT_EQ(Feed(message(16 << 20), 1 << 20).substr(0, 16), "message 2 7 9 1 ");
    EXPECT_TRUE(message(kMaxFrameBody).empty());
    Message crowded = AMessage({});
    crowded.parameterCount = kMaxParameters + 1;
    EXPECT_TRUE(MessageBlocks(crowded).Blocks().empty());
    EXPECT_TRUE(EncodeFrame(ObjectAnnounce{1, 0, 0, std::string(kMaxName + 1, 'n')}).empty());
    EXPECT_TRUE(EncodeFrame(ObjectAnnounce{1, 0, 0, std::string_view("a\0b", 3)}).empty());
    EXPECT_TRUE(EncodeFrame(Hello{.token = std::string(kMaxToken + 1, 't')}).empty());
    EXPECT_EQ(Feed(EncodeFrame(Goodbye{std::string(100000, 'x')}), 9000),
              "goodbye " + std::string(kMaxText, 'x') + "\n");

    struct {
        const char *what;
        std::vector<uint8_t> bytes;
        const char *fault;
    } cases[] = {
        {"no type", {0, 0, 0, 0, 0, 0, 0, 0}, "a frame of unknown type"},
        {"a later type", {0, 0, 0, 0, 16, 0, 0, 0}, "a frame of unknown type"},
        {"reserved bytes", {0, 0, 0, 0, 12, 1, 0, 0}, "a frame of unknown type"},
        {"too large", {1, 0x10, 0, 1, 4, 0, 0, 0}, "a frame is too large"},
        {"largest length", {255, 255, 255, 255, 4, 0, 0, 0}, "a frame is too large"},
        {"not ours", {4, 0, 0, 0, 1, 0, 0, 0, 'S', 'S', 'H', '-'}, "the peer doesn't speak this protocol"},
        {"later version",
         {20, 0, 0, 0, 1, 0, 0, 0, 'F', 'O', 'D', 'R', 2, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9, 9},
         "the peer speaks another version of the protocol"},
        {"zero in a name",
         {15, 0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0},
         "a text in a frame is too long or holds a zero"},
        {"17 parameters",
         {16, 0, 0, 0, 4, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 17, 0},
         "a message with too many parameters"},
        {"parameter type",
         {24, 0, 0, 0, 4, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 8, 0, 0, 0, 0, 0, 0, 0},
         "a parameter of unknown type"},
    };
    for (const auto &test : cases)
        EXPECT_EQ(Feed(std::as_bytes(std::span(test.bytes)), 64), std::string("fault: ") + test.fault)
            << test.what;
}

} // namespace
} // namespace fodr::test
