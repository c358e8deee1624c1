// Frames to bytes and back. A body is taken apart in one place, which never reads outside it and names the
// rule that a bad one breaks.
#pragma once

#include "lib/misc/LittleEndian.h"
#include "platform/ByteStream.h"
#include "transport/Frames.h"

#include <memory>
#include <string_view>
#include <vector>

namespace fodr::transport {

// Writes a frame from its Fields.
class FrameWriter {
public:
    explicit FrameWriter(FrameType type) { Values(uint32_t{0}, static_cast<uint32_t>(type)); }

    template <typename... Numbers> FrameWriter &Values(Numbers... numbers)
    {
        (Value(numbers), ...);
        return *this;
    }
    FrameWriter &Bytes(platform::ByteView block);
    FrameWriter &Magic() { return Values(kMagic); }
    FrameWriter &OurVersion(uint16_t version) { return Values(version); }
    FrameWriter &Unused() { return Values(uint16_t{0}); }
    FrameWriter &Name(std::string_view text, size_t limit);
    FrameWriter &Words(std::string_view text);

    // Empty when a limit of Frames.h would be broken.
    std::vector<std::byte> Finish();

private:
    template <typename Number> void Value(Number number)
    {
        std::array<std::byte, sizeof(number)> raw;
        StoreLittle(raw.data(), number);
        Bytes(raw);
    }

    std::vector<std::byte> bytes;
    bool isBroken = false;
};

// Reads a body by the Fields of its frame, from the front. What lies past the end is zero or empty.
class FrameReader {
public:
    explicit FrameReader(platform::ByteView body) : rest(body) {}

    template <typename... Numbers> FrameReader &Values(Numbers &...numbers)
    {
        ((numbers = Value<Numbers>()), ...);
        return *this;
    }
    FrameReader &Bytes(std::span<std::byte> block);
    FrameReader &Magic();
    // A later version may append to the frame; that it is another is said before anything else.
    FrameReader &OurVersion(uint16_t &version);
    FrameReader &Unused();
    FrameReader &Name(std::string_view &text, size_t limit);
    FrameReader &Words(std::string_view &text) { return Name(text, kMaxText); }

    platform::ByteView Take(size_t count);
    template <typename Number> Number Value()
    {
        const platform::ByteView bytes = Take(sizeof(Number));
        return bytes.empty() ? Number{} : LoadLittle<Number>(bytes.data());
    }
    // Makes `why` the verdict, unless there is a fault already.
    void Refuse(const char *why);
    bool HasFailed() const { return fault != nullptr || isShort; }
    // Null when the body was good and has been read to its end, else why it wasn't: a text that lives
    // forever.
    const char *Verdict() const;

private:
    platform::ByteView rest;
    const char *fault = nullptr;
    bool isShort = false;
    bool hasBadText = false;
};

// Takes one body apart and hands the frame to `receiver`. Null when it was good, else why it wasn't: a text
// that lives forever. The receiver hears nothing of a bad frame.
[[nodiscard]] const char *DecodeFrame(FrameType type, platform::ByteView body, IFrameReceiver *receiver);

// The same for a frame of a known type.
template <class Frame> [[nodiscard]] const char *DecodeBody(platform::ByteView body, Frame *frame)
{
    FrameReader reader(body);
    Frame::Fields(reader, *frame);
    return reader.Verdict();
}

// A whole frame, header included. Empty when a limit of Frames.h would be broken.
template <class Frame> std::vector<std::byte> EncodeFrame(const Frame &frame)
{
    FrameWriter writer(Frame::kType);
    Frame::Fields(writer, frame);
    return writer.Finish();
}

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
