// Bytes as they come from a stream, handed out as whole frames without a copy.
#pragma once

#include "transport/FrameCodec.h"

#include <memory>

namespace fodr::transport {

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
