#include "host/HostMessage.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

namespace fodr::host {

namespace {

// In front of the bytes of every block that is ours.
struct alignas(16) BlockHeader {
    std::atomic<uint32_t> shares{1};
};

// Marks a variant whose block has a header.
constexpr uint16_t kOurs[3] = {0x4F56, 0xB10C, 0x1DE5};

bool IsOurBlock(const Variant &value)
{
    return value.type == ODP_VT_BLOB && value.blobData != nullptr &&
           std::memcmp(value.reserved, kOurs, sizeof(kOurs)) == 0;
}

BlockHeader *HeaderOf(const Variant &value)
{
    return reinterpret_cast<BlockHeader *>(static_cast<std::byte *>(value.blobData) - sizeof(BlockHeader));
}

} // namespace

void InitVariant(Variant *value)
{
    *value = Variant{};
}

void ClearVariant(Variant *value)
{
    if (IsOurBlock(*value)) {
        BlockHeader *header = HeaderOf(*value);
        if (header->shares.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            header->~BlockHeader();
            std::free(header);
        }
    }
    InitVariant(value);
}

void SetNumber(Variant *value, uint32_t number)
{
    InitVariant(value);
    value->type = ODP_VT_UI4;
    value->value.number = number;
}

void SetBlock(Variant *value, std::span<const std::byte> block)
{
    InitVariant(value);
    void *memory = block.size() <= UINT32_MAX ? std::malloc(sizeof(BlockHeader) + block.size()) : nullptr;
    if (memory == nullptr)
        return;
    new (memory) BlockHeader;
    value->type = ODP_VT_BLOB;
    std::memcpy(value->reserved, kOurs, sizeof(kOurs));
    value->value.blobLength = static_cast<uint32_t>(block.size());
    value->blobData = static_cast<std::byte *>(memory) + sizeof(BlockHeader);
    if (!block.empty())
        std::memcpy(value->blobData, block.data(), block.size());
}

void ShareVariant(Variant *to, const Variant &from)
{
    if (from.type == ODP_VT_BLOB && !IsOurBlock(from)) {
        SetBlock(to, BlockOf(from));
        return;
    }
    if (IsOurBlock(from))
        HeaderOf(from)->shares.fetch_add(1, std::memory_order_relaxed);
    *to = from;
}

namespace {

uint32_t NextId()
{
    static std::atomic<uint32_t> last{0};
    return ++last;
}

} // namespace

HostMessage::HostMessage(uint32_t options) : id(NextId()), extOptions(options) {}

HostMessage::HostMessage(const transport::Message &received)
    : incoming(&received), id(received.requestId), command(received.command),
      post((received.flags & transport::Message::kPost) != 0)
{}

HostMessage::~HostMessage()
{
    for (size_t i = 0; i < count; ++i)
        ClearVariant(&parameters[i]);
}

bool HostMessage::SetOption(uint32_t option, const Variant *value)
{
    if (option != ODP_MESSAGE_POST || value == nullptr || value->type != ODP_VT_UI4)
        return false;
    post = value->value.number != 0;
    return true;
}

int32_t HostMessage::ParameterCount() const
{
    return incoming != nullptr ? incoming->parameterCount : count;
}

void HostMessage::Append(const Variant &value)
{
    const bool known = value.type == ODP_VT_UI4 || value.type == ODP_VT_BLOB;
    if (!known || count == parameters.size() || incoming != nullptr) {
        overfull = true;
        return;
    }
    ShareVariant(&parameters[count], value);
    if (parameters[count].type == value.type)
        ++count;
    else
        overfull = true; // no memory for a copy
}

void HostMessage::Get(int32_t index, Variant *value) const
{
    InitVariant(value);
    if (index < 0 || index >= ParameterCount())
        return;
    const auto at = static_cast<size_t>(index);
    if (incoming == nullptr) {
        ShareVariant(value, parameters[at]);
        return;
    }
    const transport::Parameter &parameter = incoming->parameters[at];
    if (parameter.isBlock)
        SetBlock(value, parameter.block);
    else
        SetNumber(value, parameter.number);
}

bool HostMessage::ToFrame(transport::Message *frame) const
{
    frame->requestId = id;
    frame->command = command;
    frame->flags = post ? transport::Message::kPost : 0;
    frame->parameterCount = count;
    for (size_t i = 0; i < count; ++i) {
        frame->parameters[i].isBlock = parameters[i].type == ODP_VT_BLOB;
        if (frame->parameters[i].isBlock)
            frame->parameters[i].block = BlockOf(parameters[i]);
        else
            frame->parameters[i].number = parameters[i].value.number;
    }
    return !overfull;
}

} // namespace fodr::host
