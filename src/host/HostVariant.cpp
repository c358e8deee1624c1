#include "host/HostVariant.h"

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

} // namespace fodr::host
