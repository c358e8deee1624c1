#include "transport/FrameBuffer.h"

#include <algorithm>
#include <cstring>

namespace fodr::transport {

FrameBuffer::FrameBuffer() : bytes(new std::byte[kInitialSize]) {}

std::span<std::byte> FrameBuffer::Room()
{
    const size_t held = end - begin;
    if (held == 0) {
        begin = end = 0;
    } else if (needed > capacity - begin) {
        if (held == capacity) {
            capacity = std::min(2 * capacity, kFrameHeaderSize + kMaxFrameBody);
            std::unique_ptr<std::byte[]> larger(new std::byte[capacity]);
            std::memcpy(larger.get(), &bytes[begin], held);
            bytes = std::move(larger);
        } else if (begin != 0) {
            std::memmove(&bytes[0], &bytes[begin], held);
        }
        begin = 0;
        end = held;
    }
    return {&bytes[end], capacity - end};
}

FrameBuffer::Outcome FrameBuffer::Next(FrameHeader *header, platform::ByteView *body, const char **fault)
{
    const size_t held = end - begin;
    needed = kFrameHeaderSize;
    if (held < kFrameHeaderSize)
        return Outcome::NeedMore;
    *fault = DecodeHeader(&bytes[begin], header);
    if (*fault != nullptr)
        return Outcome::Bad;
    if (held - kFrameHeaderSize < header->bodySize) {
        needed = kFrameHeaderSize + header->bodySize;
        return Outcome::NeedMore;
    }
    *body = {&bytes[begin + kFrameHeaderSize], header->bodySize};
    begin += kFrameHeaderSize + header->bodySize;
    return Outcome::Frame;
}

} // namespace fodr::transport
