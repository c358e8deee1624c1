#include "transport/FrameCodec.h"

#include <algorithm>

namespace fodr::transport {
namespace {

class FrameWriter : public BodyWriter {
public:
    explicit FrameWriter(FrameType type)
    {
        Write<uint32_t>(0);
        Write(static_cast<uint32_t>(type));
    }
    std::vector<std::byte> Finish()
    {
        StoreLittle(bytes.data(), static_cast<uint32_t>(bytes.size() - kFrameHeaderSize));
        return std::move(bytes);
    }
};

// Notices and reasons are for people: a long one is cut rather than refused.
std::string_view Cut(std::string_view text)
{
    return text.substr(0, std::min({text.size(), kMaxText, text.find('\0')}));
}

} // namespace

std::vector<std::byte> EncodeFrame(const Hello &frame)
{
    if (!FitsIn(frame.token, kMaxToken))
        return {};
    FrameWriter writer(FrameType::Hello);
    writer.Write(kMagic);
    writer.Write(frame.version);
    writer.Write(static_cast<uint16_t>(frame.role));
    writer.Write(frame.keepAlive.pingAfterMS);
    writer.Write(frame.keepAlive.deadAfterMS);
    writer.Text(frame.token);
    return writer.Finish();
}

std::vector<std::byte> EncodeFrame(const ObjectAnnounce &frame)
{
    if (!FitsIn(frame.name, kMaxName))
        return {};
    FrameWriter writer(FrameType::ObjectAnnounce);
    writer.Write(frame.object);
    writer.Write(frame.flags);
    writer.Write(frame.options);
    writer.Text(frame.name);
    return writer.Finish();
}

std::vector<std::byte> EncodeFrame(const ObjectState &frame)
{
    FrameWriter writer(FrameType::ObjectState);
    writer.Write(frame.object);
    writer.Write(frame.state);
    return writer.Finish();
}

std::vector<std::byte> EncodeFrame(const MessageDone &frame)
{
    FrameWriter writer(FrameType::MessageDone);
    writer.Write(frame.object);
    writer.Write(frame.requestId);
    return writer.Finish();
}

std::vector<std::byte> EncodeFrame(const MessageAbort &frame)
{
    FrameWriter writer(FrameType::MessageAbort);
    writer.Write(frame.object);
    writer.Write(frame.requestId);
    writer.Write(frame.reason);
    return writer.Finish();
}

std::vector<std::byte> EncodeFrame(const SideRequest &frame)
{
    FrameWriter writer(FrameType::SideRequest);
    writer.Write(frame.object);
    writer.Write(frame.type);
    return writer.Finish();
}

std::vector<std::byte> EncodeFrame(const SideOffer &frame)
{
    FrameWriter writer(FrameType::SideOffer);
    writer.Write(frame.object);
    writer.Write(frame.port);
    writer.Write<uint16_t>(0);
    writer.Bytes(frame.secret);
    return writer.Finish();
}

std::vector<std::byte> EncodeFrame(const SideRefused &frame)
{
    FrameWriter writer(FrameType::SideRefused);
    writer.Write(frame.object);
    writer.Text(Cut(frame.reason));
    return writer.Finish();
}

std::vector<std::byte> EncodeFrame(const SideHello &frame)
{
    FrameWriter writer(FrameType::SideHello);
    writer.Write(kMagic);
    writer.Write(frame.version);
    writer.Write<uint16_t>(0);
    writer.Write(frame.object);
    writer.Bytes(frame.secret);
    return writer.Finish();
}

std::vector<std::byte> EncodeFrame(const SideReady &frame)
{
    FrameWriter writer(FrameType::SideReady);
    writer.Write(frame.object);
    return writer.Finish();
}

std::vector<std::byte> EncodeFrame(const Notice &frame)
{
    FrameWriter writer(FrameType::Notice);
    writer.Write(static_cast<uint32_t>(frame.kind));
    writer.Text(Cut(frame.text));
    return writer.Finish();
}

std::vector<std::byte> EncodeFrame(const Goodbye &frame)
{
    FrameWriter writer(FrameType::Goodbye);
    writer.Text(Cut(frame.reason));
    return writer.Finish();
}

std::vector<std::byte> EncodeBare(FrameType type)
{
    return FrameWriter(type).Finish();
}

MessageBlocks::MessageBlocks(const Message &frame)
{
    size_t bodySize = kMessageHeaderSize - kFrameHeaderSize;
    if (frame.parameterCount > kMaxParameters)
        return;
    for (const Parameter &parameter : frame.Parameters()) {
        const size_t room = kMaxFrameBody - bodySize - kParameterHeaderSize;
        const size_t size = parameter.isBlock ? parameter.block.size() : 0;
        const size_t tailSize = parameter.isBlock ? parameter.tail.size() : 0;
        if (size > room || tailSize > room - size)
            return;
        bodySize += kParameterHeaderSize + size + tailSize;
        if (bodySize > kMaxFrameBody - kParameterHeaderSize)
            return;
    }
    StoreLittle(&headers[0], static_cast<uint32_t>(bodySize));
    StoreLittle(&headers[4], static_cast<uint32_t>(FrameType::Message));
    StoreLittle(&headers[8], frame.object);
    StoreLittle(&headers[12], frame.requestId);
    StoreLittle(&headers[16], frame.command);
    StoreLittle(&headers[20], frame.flags);
    StoreLittle(&headers[22], frame.parameterCount);
    // One block of headers up to each payload.
    size_t begin = 0;
    size_t end = kMessageHeaderSize;
    for (const Parameter &parameter : frame.Parameters()) {
        const uint32_t value = parameter.isBlock
                                   ? static_cast<uint32_t>(parameter.block.size() + parameter.tail.size())
                                   : parameter.number;
        StoreLittle(&headers[end], parameter.isBlock ? kBlockParameter : kNumberParameter);
        StoreLittle<uint16_t>(&headers[end + 2], 0);
        StoreLittle(&headers[end + 4], value);
        end += kParameterHeaderSize;
        if (parameter.isBlock && value != 0) {
            Add({&headers[begin], end - begin});
            Add(parameter.block);
            Add(parameter.tail);
            begin = end;
        }
    }
    if (begin != end)
        Add({&headers[begin], end - begin});
}

} // namespace fodr::transport
