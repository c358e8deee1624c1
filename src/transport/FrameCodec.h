// Frames to bytes and back. A body is taken apart in one place, which never reads outside it and names the
// rule that a bad one breaks.
#pragma once

#include "lib/misc/LittleEndian.h"
#include "platform/ByteStream.h"
#include "transport/Frames.h"

#include <cstring>
#include <memory>
#include <string_view>
#include <type_traits>
#include <vector>

namespace fodr::transport {

// Types of a parameter: those of the variants that plug-ins use.
inline constexpr uint16_t kNumberParameter = 0x13;
inline constexpr uint16_t kBlockParameter = 0x41;

// Whether a text can stand in a frame that allows `limit` bytes of it.
inline bool FitsIn(std::string_view text, size_t limit)
{
    return text.size() <= limit && text.find('\0') == std::string_view::npos;
}

// Takes one body apart and hands the frame to `receiver`. Null when it was good, else why it wasn't: a text
// that lives forever. The receiver hears nothing of a bad frame.
[[nodiscard]] const char *DecodeFrame(FrameType type, platform::ByteView body, IFrameReceiver *receiver);

// A whole frame, header included. Empty when a limit of Frames.h would be broken.
std::vector<std::byte> EncodeFrame(const Hello &frame);
std::vector<std::byte> EncodeFrame(const ObjectAnnounce &frame);
std::vector<std::byte> EncodeFrame(const ObjectState &frame);
std::vector<std::byte> EncodeFrame(const MessageDone &frame);
std::vector<std::byte> EncodeFrame(const MessageAbort &frame);
std::vector<std::byte> EncodeFrame(const SideRequest &frame);
std::vector<std::byte> EncodeFrame(const SideOffer &frame);
std::vector<std::byte> EncodeFrame(const SideRefused &frame);
std::vector<std::byte> EncodeFrame(const SideHello &frame);
std::vector<std::byte> EncodeFrame(const SideReady &frame);
std::vector<std::byte> EncodeFrame(const Notice &frame);
std::vector<std::byte> EncodeFrame(const Goodbye &frame);
std::vector<std::byte> EncodeBare(FrameType type); // ping and pong

// A message as blocks to be written one after the other: headers that this object holds, and the payloads of
// the caller, uncopied.
class MessageBlocks {
public:
    explicit MessageBlocks(const Message &frame);
    // Empty when a limit of Frames.h would be broken.
    std::span<const platform::ByteView> Blocks() const { return {blocks.data(), blockCount}; }

private:
    void Add(platform::ByteView block)
    {
        if (!block.empty())
            blocks[blockCount++] = block;
    }

    static constexpr size_t kMessageHeaderSize = kFrameHeaderSize + 16;
    static constexpr size_t kParameterHeaderSize = 8;
    std::array<std::byte, kMessageHeaderSize + kMaxParameters * kParameterHeaderSize> headers;
    std::array<platform::ByteView, 3 * kMaxParameters + 1> blocks;
    size_t blockCount = 0;
};

// The header in front of a body.
struct FrameHeader {
    uint32_t bodySize = 0;
    FrameType type{};
};
// Null when the header is good, else why it isn't. `bytes` holds kFrameHeaderSize of them.
[[nodiscard]] const char *DecodeHeader(const std::byte *bytes, FrameHeader *header);

// Reads from the front. After a read past the end Failed is true and everything read is zero or empty.
class BodyReader {
public:
    explicit BodyReader(platform::ByteView body) : rest(body) {}

    template <typename Integer> Integer Read()
    {
        const platform::ByteView bytes = Bytes(sizeof(Integer));
        return bytes.empty() ? Integer{} : LoadLittle<Integer>(bytes.data());
    }
    platform::ByteView Bytes(size_t count)
    {
        if (count > rest.size()) {
            failed = true;
            rest = {};
            return {};
        }
        const platform::ByteView taken = rest.first(count);
        rest = rest.subspan(count);
        return taken;
    }
    std::string_view Text()
    {
        const platform::ByteView bytes = Bytes(Read<uint16_t>());
        return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
    }
    bool Failed() const { return failed; }
    bool AtEnd() const { return rest.empty(); }

private:
    platform::ByteView rest;
    bool failed = false;
};

// Appends to a growing buffer.
class BodyWriter {
public:
    template <typename Integer> void Write(Integer value)
    {
        std::array<std::byte, sizeof(Integer)> raw;
        StoreLittle(raw.data(), value);
        Bytes(raw);
    }
    // Kept out of line: inlined into a writer that has just begun, g++ 12 takes the growing for an overflow.
    [[gnu::noinline]] void Bytes(platform::ByteView block)
    {
        bytes.insert(bytes.end(), block.begin(), block.end());
    }
    void Text(std::string_view text)
    {
        Write(static_cast<uint16_t>(text.size()));
        Bytes(std::as_bytes(std::span(text)));
    }

    std::vector<std::byte> bytes;
};

// Bytes as they come from a stream, handed out as whole frames without a copy.
class FrameBuffer {
public:
    FrameBuffer();

    // Room for the next bytes of the stream; never empty after Next has been called until it gave no frame.
    std::span<std::byte> Room();
    // `count` bytes of the room were filled.
    void Added(size_t count) { end += count; }

    enum class Outcome { Frame, NeedMore, Bad };
    // The next whole frame. `body` holds until the next call of Room. Bad: `*fault` says why, and nothing
    // more is to be had from this stream.
    Outcome Next(FrameHeader *header, platform::ByteView *body, const char **fault);

private:
    // What a fresh connection reads at once. A larger frame grows the buffer as its bytes come, so that a
    // length alone costs nothing.
    static constexpr size_t kInitialSize = 1 << 20;

    std::unique_ptr<std::byte[]> bytes;
    size_t capacity = kInitialSize;
    size_t begin = 0; // of the first frame that wasn't handed out
    size_t end = 0;
    size_t needed = kFrameHeaderSize; // from begin on, to go further
};

} // namespace fodr::transport
