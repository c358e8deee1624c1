// The variants of the boundary. A block that we made is shared by count; one that a plug-in put together
// itself is copied where we keep it.
#pragma once

#include "odpservice/odpservice.h"

#include <cstddef>
#include <span>

namespace fodr::host {

void InitVariant(Variant *value);
// Lets go of what it holds and makes it empty.
void ClearVariant(Variant *value);
void SetNumber(Variant *value, uint32_t number);
// Copies the block. The variant is empty when there is no memory for it.
void SetBlock(Variant *value, std::span<const std::byte> block);
// `to` gets a share of `from`'s block, or a copy if it isn't ours.
void ShareVariant(Variant *to, const Variant &from);

inline std::span<const std::byte> BlockOf(const Variant &value)
{
    return {static_cast<const std::byte *>(value.blobData),
            value.blobData != nullptr ? value.value.blobLength : 0};
}

} // namespace fodr::host
