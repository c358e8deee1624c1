// Little-endian integers in byte buffers, loaded and stored one byte at a time (compilers make one access of
// it), so no address need be aligned. `Byte` is uint8_t or std::byte.
#pragma once

#include <cstddef>
#include <type_traits>

namespace fodr {

template <class T, class Byte> constexpr T LoadLittle(const Byte *bytes)
{
    using Unsigned = std::make_unsigned_t<T>;
    Unsigned value = 0;
    for (size_t i = 0; i < sizeof(T); ++i)
        value =
            static_cast<Unsigned>(value | static_cast<Unsigned>(static_cast<Unsigned>(bytes[i]) << (8 * i)));
    return static_cast<T>(value);
}

template <class T, class Byte> constexpr void StoreLittle(Byte *bytes, T value)
{
    const auto all = static_cast<std::make_unsigned_t<T>>(value);
    for (size_t i = 0; i < sizeof(T); ++i)
        bytes[i] = static_cast<Byte>(all >> (8 * i));
}

} // namespace fodr
