// Small text helpers: printing that cuts rather than fails, paths, conversion. No shared state; any thread.
#pragma once

#include "lib/misc/Panic.h"

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace fodr {

// Too large a number is the largest one, and a minus, which strtoull has applied, counts back from behind
// that.
inline uint32_t SaturatedNumber(uint64_t number)
{
    constexpr uint64_t kLargest = UINT32_MAX;
    return number <= kLargest || number >= -kLargest ? static_cast<uint32_t>(number) : UINT32_MAX;
}

// Decimal, hexadecimal behind "0x" or octal behind "0"; up to the first character that doesn't belong to the
// number.
inline uint32_t ParseSettingNumber(const std::string &text)
{
    return SaturatedNumber(std::strtoull(text.c_str(), nullptr, 0));
}

} // namespace fodr

namespace fodr::StringUtils {

// As snprintf, but the result is the length stored: at most size - 1. Negative on an error of the format. The
// wide form takes the same UTF-8 format and stores UTF-16; a text that isn't valid UTF-8 is an error.
int FormatBuffer(char *buffer, size_t size, const char *format, ...) FODR_PRINTF(3, 4);
int FormatBufferV(char *buffer, size_t size, const char *format, va_list arguments) FODR_PRINTF(3, 0);
int FormatBuffer(char16_t *buffer, size_t size, const char *format, ...) FODR_PRINTF(3, 4);
int FormatBufferV(char16_t *buffer, size_t size, const char *format, va_list arguments) FODR_PRINTF(3, 0);

// A text of any length; empty on an error of the format.
std::string Format(const char *format, ...) FODR_PRINTF(1, 2);
std::string FormatV(const char *format, va_list arguments) FODR_PRINTF(1, 0);

// False for a null argument and for a suffix that is longer than the text. Without case means ASCII letters.
bool EndsWith(const char *text, const char *suffix, bool caseSensitive);

// `name` alone for an empty folder; otherwise with the system's separator between them, unless one is there.
std::string JoinPath(const std::string &folder, const std::string &name);
// Cut at the last '/' or '\'. "." for a path without one; the separator of a root stays: "/", "C:\".
std::string ParentPath(const std::string &path);

inline constexpr uint32_t kOutOfMemory = 14;            // MS-ERREF 2.2: ERROR_OUTOFMEMORY
inline constexpr uint32_t kInvalidParameter = 87;       // ERROR_INVALID_PARAMETER
inline constexpr uint32_t kNoUnicodeTranslation = 1113; // ERROR_NO_UNICODE_TRANSLATION

// 0 or a Windows error code. `*out` receives a terminated block that the caller frees; null on failure.
uint32_t Utf8ToWide(const char *text, char16_t **out);
uint32_t WideToUtf8(const char16_t *text, char **out);

// Bytes as lines of "0x0010: 41 42 43  ABC " with a newline each; the characters written, the terminator not
// counted. `indent` columns stand before each line; a negative indent spares the first line. What doesn't fit
// is left out in whole lines and the words BUFFER TOO SMALL stand at the end, as far as there is room for
// them.
size_t HexDump(char *buffer, size_t size, const void *data, size_t length, int bytesPerLine, int indent);

// One text in up to two forms, UTF-8 and UTF-16; the second is made when asked for. One thread at a time:
// reading may write the kept form.
class XString {
public:
    XString() = default;
    XString(const XString &) = delete;
    XString &operator=(const XString &) = delete;
    virtual ~XString();

    // Forget both forms and store this one. With `takeOwnership` the text is from malloc and freed here,
    // otherwise it must outlive this. Null stores an empty text.
    void SetNarrow(const char *text, bool takeOwnership);
    void SetWide(const char16_t *text, bool takeOwnership);

    // Null when nothing is stored, or when the other form can't be converted.
    const char *GetNarrow();
    const char16_t *GetWide();

private:
    void Clear();

    const char16_t *wide = nullptr;
    bool ownsWide = false;
    const char *narrow = nullptr;
    bool ownsNarrow = false;
};

} // namespace fodr::StringUtils
