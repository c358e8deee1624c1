// Conversion between UTF-8 and UTF-16LE, comparison of names. Any thread.
//
// Conversions are strict: an unpaired surrogate, an overlong form, a surrogate or a value above 0x10FFFF in
// UTF-8 and a cut sequence make the whole conversion fail. Nothing is replaced.
#pragma once

#include <cstddef>
#include <cstdint>
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

} // namespace fodr
