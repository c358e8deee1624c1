// Conversion between UTF-8 and UTF-16LE, comparison of names. Any thread.
//
// Conversions are strict: an unpaired surrogate, an overlong form, a surrogate or a value above 0x10FFFF in
// UTF-8 and a cut sequence make the whole conversion fail. Nothing is replaced.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace fodr {

// Numbers of the encodings that UnicodeGetAllocated knows.
enum Encoding : int32_t {
    ENCODING_UTF8 = 0,
    ENCODING_UTF16LE = 1,
    ENCODING_US_ASCII = 7,
};

// `*out` receives a malloc block with the text and two zero bytes behind it, `*outLength` (may be null) the
// length without them. On failure, which is bad input or no memory, null and 0.
[[nodiscard]] bool CodeSetUtf16leToUtf8(const void *data, size_t byteLength, char **out, size_t *outLength);

// `*out` receives a malloc block with the text and one zero unit behind it, `*outLength` (may be null) the
// length in bytes without it. On failure null and 0.
[[nodiscard]] bool CodeSetUtf8ToUtf16le(const void *data, size_t byteLength, char **out, size_t *outLength);

// A new malloc block with the UTF-8 text, terminated, in the encoding; null for a null text. A text that
// can't become UTF-16LE ends the process; one that isn't ASCII gives null for US-ASCII.
[[nodiscard]] void *UnicodeGetAllocated(const char *text, Encoding encoding);

// -1, 0 or 1, in order of code points and not of UTF-16 units; ignoreCase compares the folded units. A text
// that isn't valid UTF-8 gives -1, wherever it stands.
int UnicodeCompare(const char *first, const char *second, bool ignoreCase);

// The same conversions for strings. False, with `out` empty, for invalid input.
[[nodiscard]] bool Utf16ToUtf8(std::u16string_view text, std::string &out);
[[nodiscard]] bool Utf8ToUtf16(std::string_view text, std::u16string &out);

// One code point at a time: the decoding and encoding steps that the conversions share. Any thread.

// What a decoding step found: the code point and the bytes or units it took. `taken` 0 means not valid.
struct DecodedCodePoint {
    char32_t codePoint;
    uint32_t taken;
};

inline constexpr DecodedCodePoint kInvalidCodePoint{0, 0};

constexpr bool IsSurrogate(char32_t unit)
{
    return (unit & 0xFFFFF800) == 0xD800;
}
constexpr bool IsHighSurrogate(char32_t unit)
{
    return (unit & 0xFFFFFC00) == 0xD800;
}
constexpr bool IsLowSurrogate(char32_t unit)
{
    return (unit & 0xFFFFFC00) == 0xDC00;
}

constexpr char32_t JoinSurrogates(char32_t high, char32_t low)
{
    return 0x10000 + ((high - 0xD800) << 10) + (low - 0xDC00);
}

// Decodes the sequence at `text`, of which `available` bytes, at least one, may be read.
inline DecodedCodePoint DecodeUtf8(const uint8_t *text, size_t available)
{
    const uint8_t lead = text[0];
    if (lead < 0x80)
        return {lead, 1};
    if (lead < 0xC2 || lead > 0xF4)
        return kInvalidCodePoint;
    const uint32_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if (length > available)
        return kInvalidCodePoint;
    char32_t codePoint = lead & (0x7Fu >> length);
    for (uint32_t i = 1; i < length; ++i) {
        if ((text[i] & 0xC0) != 0x80)
            return kInvalidCodePoint;
        codePoint = (codePoint << 6) | (text[i] & 0x3Fu);
    }
    constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (codePoint < kSmallest[length] || IsSurrogate(codePoint) || codePoint > 0x10FFFF)
        return kInvalidCodePoint;
    return {codePoint, length};
}

// Decodes at unit `index` of `count` little-endian units that needn't be aligned.
inline DecodedCodePoint DecodeUtf16(const uint8_t *units, size_t index, size_t count)
{
    auto unitAt = [units](size_t i) { return static_cast<char32_t>(units[2 * i] | units[2 * i + 1] << 8); };
    const char32_t first = unitAt(index);
    if (!IsSurrogate(first))
        return {first, 1};
    if (!IsHighSurrogate(first) || count - index < 2 || !IsLowSurrogate(unitAt(index + 1)))
        return kInvalidCodePoint;
    return {JoinSurrogates(first, unitAt(index + 1)), 2};
}

// Writes at most four bytes; the count written.
inline size_t EncodeUtf8(char32_t codePoint, uint8_t *out)
{
    auto continuation = [codePoint](int shift) {
        return static_cast<uint8_t>(0x80 | ((codePoint >> shift) & 0x3F));
    };
    if (codePoint < 0x80) {
        out[0] = static_cast<uint8_t>(codePoint);
        return 1;
    }
    if (codePoint < 0x800) {
        out[0] = static_cast<uint8_t>(0xC0 | (codePoint >> 6));
        out[1] = continuation(0);
        return 2;
    }
    if (codePoint < 0x10000) {
        out[0] = static_cast<uint8_t>(0xE0 | (codePoint >> 12));
        out[1] = continuation(6);
        out[2] = continuation(0);
        return 3;
    }
    out[0] = static_cast<uint8_t>(0xF0 | (codePoint >> 18));
    out[1] = continuation(12);
    out[2] = continuation(6);
    out[3] = continuation(0);
    return 4;
}

// Writes one unit or a pair, little-endian; the count of units.
inline size_t EncodeUtf16(char32_t codePoint, uint8_t *out)
{
    auto store = [out](size_t i, char32_t unit) {
        out[2 * i] = static_cast<uint8_t>(unit);
        out[2 * i + 1] = static_cast<uint8_t>(unit >> 8);
    };
    if (codePoint < 0x10000) {
        store(0, codePoint);
        return 1;
    }
    store(0, 0xD800 + ((codePoint - 0x10000) >> 10));
    store(1, 0xDC00 + ((codePoint - 0x10000) & 0x3FF));
    return 2;
}

// Whether the next eight bytes, or four units, are plain ASCII. Paths are mostly ASCII, and looking at a
// whole word at a time is what makes their conversion cheap.
inline bool EightAsciiBytes(const uint8_t *text)
{
    uint64_t word;
    memcpy(&word, text, sizeof(word));
    return (word & 0x8080808080808080u) == 0;
}

inline bool FourAsciiUnits(const uint8_t *units)
{
    uint64_t word;
    memcpy(&word, units, sizeof(word));
    return (word & 0xFF80FF80FF80FF80u) == 0;
}

} // namespace fodr
