// Little-endian integers in byte buffers, and a reader that can't leave its buffer.
#pragma once

#include "platform/ByteStream.h"

#include <cstring>
#include <string_view>
#include <type_traits>
#include <vector>

namespace fodr::transport {

template <typename Integer> Integer LoadLittle(const std::byte *from)
{
    std::make_unsigned_t<Integer> value = 0;
    for (size_t i = 0; i < sizeof(Integer); ++i)
        value = static_cast<decltype(value)>(value | static_cast<decltype(value)>(from[i]) << (8 * i));
    return static_cast<Integer>(value);
}

template <typename Integer> void StoreLittle(std::byte *to, Integer value)
{
    for (size_t i = 0; i < sizeof(Integer); ++i)
        to[i] = static_cast<std::byte>(static_cast<std::make_unsigned_t<Integer>>(value) >> (8 * i));
}

// Reads from the front. After a read past the end Failed is true and everything read is zero or empty.
class BodyReader {
public:
    explicit BodyReader(platform::ByteView body) : rest(body) {}

    template <typename Integer> Integer Read()
    {
        const platform::ByteView bytes = Bytes(sizeof(Integer));
        return bytes.empty() ? Integer{} : LoadLittle<Integer>(bytes.data());
    }
    platform::ByteView Bytes(size_t count)
    {
        if (count > rest.size()) {
            failed = true;
            rest = {};
            return {};
        }
        const platform::ByteView taken = rest.first(count);
        rest = rest.subspan(count);
        return taken;
    }
    std::string_view Text()
    {
        const platform::ByteView bytes = Bytes(Read<uint16_t>());
        return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
    }
    bool Failed() const { return failed; }
    bool AtEnd() const { return rest.empty(); }

private:
    platform::ByteView rest;
    bool failed = false;
};

// Appends to a growing buffer.
class BodyWriter {
public:
    template <typename Integer> void Write(Integer value)
    {
        std::array<std::byte, sizeof(Integer)> raw;
        StoreLittle(raw.data(), value);
        Bytes(raw);
    }
    // Kept out of line: inlined into a writer that has just begun, g++ 12 takes the growing for an overflow.
    [[gnu::noinline]] void Bytes(platform::ByteView block)
    {
        bytes.insert(bytes.end(), block.begin(), block.end());
    }
    void Text(std::string_view text)
    {
        Write(static_cast<uint16_t>(text.size()));
        Bytes(std::as_bytes(std::span(text)));
    }

    std::vector<std::byte> bytes;
};

} // namespace fodr::transport
