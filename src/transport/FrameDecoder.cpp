#include "transport/FrameCodec.h"

#include <algorithm>
#include <cstring>

namespace fodr::transport {
namespace {

constexpr const char *kShort = "a frame is shorter than its contents";
constexpr const char *kLong = "a frame is longer than its contents";
constexpr const char *kBadText = "a text in a frame is too long or holds a zero";
constexpr const char *kNotOurs = "the peer doesn't speak this protocol";

const char *Verdict(const BodyReader &body)
{
    if (body.Failed())
        return kShort;
    return body.AtEnd() ? nullptr : kLong;
}

const char *Verdict(const BodyReader &body, std::string_view text, size_t limit)
{
    const char *fault = Verdict(body);
    return fault != nullptr || FitsIn(text, limit) ? fault : kBadText;
}

Secret ReadSecret(BodyReader *body)
{
    Secret secret{};
    const platform::ByteView bytes = body->Bytes(kSecretSize);
    std::copy(bytes.begin(), bytes.end(), secret.begin());
    return secret;
}

const char *DecodeHello(BodyReader body, IFrameReceiver *receiver)
{
    if (body.Read<uint32_t>() != kMagic)
        return kNotOurs;
    Hello frame;
    frame.version = body.Read<uint16_t>();
    frame.role = static_cast<Role>(body.Read<uint16_t>());
    frame.keepAlive.pingAfterMS = body.Read<uint32_t>();
    frame.keepAlive.deadAfterMS = body.Read<uint32_t>();
    frame.token = body.Text();
    // A later version may append to this frame; that it is another is said before anything else.
    if (frame.version != kVersion)
        return "the peer speaks another version of the protocol";
    if (const char *fault = Verdict(body, frame.token, kMaxToken))
        return fault;
    receiver->OnHello(frame);
    return nullptr;
}

const char *DecodeObjectAnnounce(BodyReader body, IFrameReceiver *receiver)
{
    ObjectAnnounce frame;
    frame.object = body.Read<uint32_t>();
    frame.flags = body.Read<uint32_t>();
    frame.options = body.Read<uint32_t>();
    frame.name = body.Text();
    if (const char *fault = Verdict(body, frame.name, kMaxName))
        return fault;
    receiver->OnObjectAnnounce(frame);
    return nullptr;
}

const char *DecodeParameter(BodyReader *body, Parameter *parameter)
{
    const uint16_t type = body->Read<uint16_t>();
    const uint16_t reserved = body->Read<uint16_t>();
    const uint32_t value = body->Read<uint32_t>();
    if (body->Failed())
        return kShort;
    if ((type != kNumberParameter && type != kBlockParameter) || reserved != 0)
        return "a parameter of unknown type";
    parameter->isBlock = type == kBlockParameter;
    parameter->number = parameter->isBlock ? 0 : value;
    if (parameter->isBlock)
        parameter->block = body->Bytes(value);
    return body->Failed() ? kShort : nullptr;
}

const char *DecodeMessage(BodyReader body, IFrameReceiver *receiver)
{
    Message frame;
    frame.object = body.Read<uint32_t>();
    frame.requestId = body.Read<uint32_t>();
    frame.command = body.Read<uint32_t>();
    frame.flags = body.Read<uint16_t>();
    frame.parameterCount = body.Read<uint16_t>();
    if (frame.parameterCount > kMaxParameters)
        return "a message with too many parameters";
    for (size_t i = 0; i < frame.parameterCount; ++i) {
        if (const char *fault = DecodeParameter(&body, &frame.parameters[i]))
            return fault;
    }
    if (const char *fault = Verdict(body))
        return fault;
    receiver->OnMessage(frame);
    return nullptr;
}

const char *DecodeSideRefused(BodyReader body, IFrameReceiver *receiver)
{
    SideRefused frame;
    frame.object = body.Read<uint32_t>();
    frame.reason = body.Text();
    if (const char *fault = Verdict(body, frame.reason, kMaxText))
        return fault;
    receiver->OnSideRefused(frame);
    return nullptr;
}

const char *DecodeSideHello(BodyReader body, IFrameReceiver *receiver)
{
    if (body.Read<uint32_t>() != kMagic)
        return kNotOurs;
    SideHello frame;
    frame.version = body.Read<uint16_t>();
    body.Read<uint16_t>();
    frame.object = body.Read<uint32_t>();
    frame.secret = ReadSecret(&body);
    if (const char *fault = Verdict(body))
        return fault;
    receiver->OnSideHello(frame);
    return nullptr;
}

const char *DecodeNotice(BodyReader body, IFrameReceiver *receiver)
{
    Notice frame;
    frame.kind = static_cast<NoticeKind>(body.Read<uint32_t>());
    frame.text = body.Text();
    if (const char *fault = Verdict(body, frame.text, kMaxText))
        return fault;
    receiver->OnNotice(frame);
    return nullptr;
}

// Frames of a few integers.
const char *DecodeFixed(FrameType type, BodyReader body, IFrameReceiver *receiver)
{
    const bool bare = type == FrameType::Ping || type == FrameType::Pong;
    const auto first = bare ? 0 : body.Read<uint32_t>();
    const bool single = bare || type == FrameType::SideReady || type == FrameType::SideOffer;
    const auto second = single ? 0 : body.Read<uint32_t>();
    const auto third = type == FrameType::MessageAbort ? body.Read<uint32_t>() : 0;
    SideOffer offer{.object = first};
    if (type == FrameType::SideOffer) {
        offer.port = body.Read<uint16_t>();
        body.Read<uint16_t>();
        offer.secret = ReadSecret(&body);
    }
    if (const char *fault = Verdict(body))
        return fault;
    switch (type) {
    case FrameType::ObjectState:
        receiver->OnObjectState({first, static_cast<int32_t>(second)});
        break;
    case FrameType::MessageDone:
        receiver->OnMessageDone({first, second});
        break;
    case FrameType::MessageAbort:
        receiver->OnMessageAbort({first, second, third});
        break;
    case FrameType::SideRequest:
        receiver->OnSideRequest({first, second});
        break;
    case FrameType::SideOffer:
        receiver->OnSideOffer(offer);
        break;
    case FrameType::SideReady:
        receiver->OnSideReady({first});
        break;
    case FrameType::Ping:
        receiver->OnPing();
        break;
    default:
        receiver->OnPong();
        break;
    }
    return nullptr;
}

} // namespace

const char *DecodeFrame(FrameType type, platform::ByteView bytes, IFrameReceiver *receiver)
{
    BodyReader body(bytes);
    switch (type) {
    case FrameType::Hello:
        return DecodeHello(body, receiver);
    case FrameType::ObjectAnnounce:
        return DecodeObjectAnnounce(body, receiver);
    case FrameType::Message:
        return DecodeMessage(body, receiver);
    case FrameType::SideRefused:
        return DecodeSideRefused(body, receiver);
    case FrameType::SideHello:
        return DecodeSideHello(body, receiver);
    case FrameType::Notice:
        return DecodeNotice(body, receiver);
    case FrameType::Goodbye: {
        const Goodbye frame{body.Text()};
        if (const char *fault = Verdict(body, frame.reason, kMaxText))
            return fault;
        receiver->OnGoodbye(frame);
        return nullptr;
    }
    default:
        return DecodeFixed(type, body, receiver);
    }
}

const char *DecodeHeader(const std::byte *bytes, FrameHeader *header)
{
    header->bodySize = LoadLittle<uint32_t>(bytes);
    const uint32_t type = LoadLittle<uint32_t>(bytes + 4);
    if (type < static_cast<uint32_t>(FrameType::Hello) || type > static_cast<uint32_t>(FrameType::Goodbye))
        return "a frame of unknown type";
    if (header->bodySize > kMaxFrameBody)
        return "a frame is too large";
    header->type = static_cast<FrameType>(type);
    return nullptr;
}

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
