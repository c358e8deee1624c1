#include "transport/FrameCodec.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace fodr::transport {
namespace {

// Types of a parameter: those of the variants that plug-ins use.
constexpr uint16_t kNumberParameter = 0x13;
constexpr uint16_t kBlockParameter = 0x41;

bool FitsIn(std::string_view text, size_t limit)
{
    return text.size() <= limit && text.find('\0') == std::string_view::npos;
}

void ReadParameter(FrameReader *body, Parameter *parameter)
{
    uint16_t type = 0;
    uint16_t reserved = 0;
    uint32_t value = 0;
    body->Values(type, reserved, value);
    if (body->HasFailed())
        return;
    if ((type != kNumberParameter && type != kBlockParameter) || reserved != 0)
        return body->Refuse("a parameter of unknown type");
    parameter->isBlock = type == kBlockParameter;
    if (parameter->isBlock)
        parameter->block = body->Take(value);
    else
        parameter->number = value;
}

const char *DecodeBody(platform::ByteView bytes, Message *frame)
{
    FrameReader body(bytes);
    body.Values(frame->object, frame->requestId, frame->command, frame->flags, frame->parameterCount);
    if (frame->parameterCount > kMaxParameters)
        body.Refuse("a message with too many parameters");
    for (size_t i = 0; i < frame->parameterCount && !body.HasFailed(); ++i)
        ReadParameter(&body, &frame->parameters[i]);
    return body.Verdict();
}

template <class Frame, void (IFrameReceiver::*Taker)(const Frame &)>
const char *Deliver(platform::ByteView body, IFrameReceiver *receiver)
{
    Frame frame;
    const char *fault = DecodeBody(body, &frame);
    if (fault == nullptr)
        (receiver->*Taker)(frame);
    return fault;
}

// By type, from FrameType::Hello on.
constexpr const char *(*kDeliver[])(platform::ByteView, IFrameReceiver *) = {
    Deliver<Hello, &IFrameReceiver::OnHello>,
    Deliver<ObjectAnnounce, &IFrameReceiver::OnObjectAnnounce>,
    Deliver<ObjectState, &IFrameReceiver::OnObjectState>,
    Deliver<Message, &IFrameReceiver::OnMessage>,
    Deliver<MessageDone, &IFrameReceiver::OnMessageDone>,
    Deliver<MessageAbort, &IFrameReceiver::OnMessageAbort>,
    Deliver<SideRequest, &IFrameReceiver::OnSideRequest>,
    Deliver<SideOffer, &IFrameReceiver::OnSideOffer>,
    Deliver<SideRefused, &IFrameReceiver::OnSideRefused>,
    Deliver<SideHello, &IFrameReceiver::OnSideHello>,
    Deliver<SideReady, &IFrameReceiver::OnSideReady>,
    Deliver<Ping, &IFrameReceiver::OnPing>,
    Deliver<Pong, &IFrameReceiver::OnPong>,
    Deliver<Notice, &IFrameReceiver::OnNotice>,
    Deliver<Goodbye, &IFrameReceiver::OnGoodbye>,
};
static_assert(std::size(kDeliver) == static_cast<size_t>(FrameType::Goodbye));

} // namespace

// ---- FrameWriter ----

FrameWriter &FrameWriter::Bytes(platform::ByteView block)
{
    bytes.insert(bytes.end(), block.begin(), block.end());
    return *this;
}

FrameWriter &FrameWriter::Name(std::string_view text, size_t limit)
{
    isBroken |= !FitsIn(text, limit);
    Value(static_cast<uint16_t>(text.size()));
    return Bytes(std::as_bytes(std::span(text)));
}

// They are for people: a long text is cut rather than refused.
FrameWriter &FrameWriter::Words(std::string_view text)
{
    return Name(text.substr(0, std::min({text.size(), kMaxText, text.find('\0')})), kMaxText);
}

std::vector<std::byte> FrameWriter::Finish()
{
    if (isBroken)
        return {};
    StoreLittle(bytes.data(), static_cast<uint32_t>(bytes.size() - kFrameHeaderSize));
    return std::move(bytes);
}

// ---- FrameReader ----

platform::ByteView FrameReader::Take(size_t count)
{
    if (count > rest.size()) {
        isShort = true;
        rest = {};
        return {};
    }
    const platform::ByteView taken = rest.first(count);
    rest = rest.subspan(count);
    return taken;
}

FrameReader &FrameReader::Bytes(std::span<std::byte> block)
{
    std::ranges::copy(Take(block.size()), block.begin());
    return *this;
}

FrameReader &FrameReader::Unused()
{
    (void)Value<uint16_t>();
    return *this;
}

FrameReader &FrameReader::Magic()
{
    if (Value<uint32_t>() != kMagic)
        Refuse("the peer doesn't speak this protocol");
    return *this;
}

FrameReader &FrameReader::OurVersion(uint16_t &version)
{
    version = Value<uint16_t>();
    if (version != kVersion)
        Refuse("the peer speaks another version of the protocol");
    return *this;
}

FrameReader &FrameReader::Name(std::string_view &text, size_t limit)
{
    const platform::ByteView bytes = Take(Value<uint16_t>());
    text = {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
    hasBadText |= !FitsIn(text, limit);
    return *this;
}

void FrameReader::Refuse(const char *why)
{
    if (fault == nullptr)
        fault = why;
}

const char *FrameReader::Verdict() const
{
    if (fault != nullptr)
        return fault;
    if (isShort)
        return "a frame is shorter than its contents";
    if (!rest.empty())
        return "a frame is longer than its contents";
    return hasBadText ? "a text in a frame is too long or holds a zero" : nullptr;
}

const char *DecodeFrame(FrameType type, platform::ByteView body, IFrameReceiver *receiver)
{
    return kDeliver[static_cast<size_t>(type) - 1](body, receiver);
}

// ---- Message ----

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
