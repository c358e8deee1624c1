// What a peer may send: any bytes, in pieces whose sizes the input chooses.
#include "transport/FrameCodec.h"

#include <algorithm>
#include <cstdint>

using namespace fodr;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    struct Reader final : transport::IFrameReceiver {
        uint64_t sum = 0;
        void OnMessage(const transport::Message &message) override
        {
            for (const transport::Parameter &parameter : message.Parameters()) {
                for (const std::byte byte : parameter.block)
                    sum += static_cast<uint64_t>(byte);
            }
        }
        void OnNotice(const transport::Notice &notice) override { sum += notice.text.size(); }
    } receiver;
    transport::FrameBuffer buffer;
    platform::ByteView bytes = std::as_bytes(std::span(data, size));
    while (!bytes.empty()) {
        const std::span<std::byte> room = buffer.Room();
        const size_t step = 1 + static_cast<size_t>(bytes.front()) * 8;
        const size_t count = std::min({step, bytes.size(), room.size()});
        std::copy_n(bytes.begin(), count, room.begin());
        buffer.Added(count);
        bytes = bytes.subspan(count);
        transport::FrameHeader header;
        platform::ByteView body;
        const char *fault = nullptr;
        while (buffer.Next(&header, &body, &fault) == transport::FrameBuffer::Outcome::Frame) {
            if (transport::DecodeFrame(header.type, body, &receiver) != nullptr)
                return 0;
        }
        if (fault != nullptr)
            return 0;
    }
    return 0;
}
