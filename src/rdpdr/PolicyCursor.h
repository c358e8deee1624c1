// Reads a policy block, which may lie about its lengths: what lies behind the data reads as zeros, and the
// cursor stops at the end.
#pragma once

#include "rdpdr/wire/WireLayout.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace fodr {

class PolicyCursor {
public:
    PolicyCursor(const uint8_t *bytes, size_t length) : position(bytes), left(length) {}

    size_t Left() const { return left; }
    // Left() bytes may be read there.
    const uint8_t *Here() const { return position; }

    void Skip(size_t count)
    {
        size_t step = std::min(count, left);
        position += step;
        left -= step;
    }
    uint8_t ReadByte() { return Read<uint8_t>(); }
    uint32_t ReadNumber() { return Read<uint32_t>(); }

    // The next `count` bytes, or what there is of them. This cursor moves behind them.
    PolicyCursor Take(size_t count)
    {
        PolicyCursor part(position, std::min(count, left));
        Skip(count);
        return part;
    }

private:
    template <class T> T Read()
    {
        std::array<uint8_t, sizeof(T)> bytes{};
        if (size_t present = std::min(sizeof(T), left); present > 0)
            memcpy(bytes.data(), position, present);
        Skip(sizeof(T));
        return LoadLittle<T>(bytes.data());
    }

    const uint8_t *position;
    size_t left;
};

} // namespace fodr
