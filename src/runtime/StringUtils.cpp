#include "runtime/StringUtils.h"

#include "lib/unicode/CaseFolding.h"
#include "lib/unicode/CodeSet.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace fodr::StringUtils {

namespace {

bool IsSeparator(char c)
{
    return c == '/' || c == '\\';
}

// The text as a terminated block from the C heap.
template <typename Text, typename Unit> uint32_t Allocate(const Text &text, Unit **out)
{
    *out = static_cast<Unit *>(calloc(text.size() + 1, sizeof(Unit)));
    if (!*out)
        return kOutOfMemory;
    std::copy(text.begin(), text.end(), *out);
    return 0;
}

} // namespace

int FormatBufferV(char *buffer, size_t size, const char *format, va_list arguments)
{
    const int length = vsnprintf(buffer, size, format, arguments);
    if (length >= 0 && static_cast<size_t>(length) >= size)
        return static_cast<int>(size) - 1;
    return length;
}

int FormatBuffer(char *buffer, size_t size, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = FormatBufferV(buffer, size, format, arguments);
    va_end(arguments);
    return length;
}

int FormatBufferV(char16_t *buffer, size_t size, const char *format, va_list arguments)
{
    if (size == 0)
        return -1;
    std::u16string text;
    if (!Utf8ToUtf16(FormatV(format, arguments), text)) {
        buffer[0] = 0;
        return -1;
    }
    const size_t length = std::min(text.size(), size - 1);
    std::copy_n(text.data(), length, buffer);
    buffer[length] = 0;
    return static_cast<int>(length);
}

int FormatBuffer(char16_t *buffer, size_t size, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = FormatBufferV(buffer, size, format, arguments);
    va_end(arguments);
    return length;
}

std::string FormatV(const char *format, va_list arguments)
{
    char shortText[256];
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(shortText, sizeof(shortText), format, arguments);
    std::string text;
    if (length > 0 && static_cast<size_t>(length) < sizeof(shortText)) {
        text.assign(shortText, static_cast<size_t>(length));
    } else if (length > 0) {
        text.resize(static_cast<size_t>(length));
        vsnprintf(text.data(), text.size() + 1, format, again);
    }
    va_end(again);
    return text;
}

std::string Format(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::string text = FormatV(format, arguments);
    va_end(arguments);
    return text;
}

bool EndsWith(const char *text, const char *suffix, bool caseSensitive)
{
    if (!text || !suffix)
        return false;
    const size_t textLength = strlen(text), suffixLength = strlen(suffix);
    if (suffixLength > textLength)
        return false;
    const char *end = text + (textLength - suffixLength);
    return caseSensitive ? strcmp(end, suffix) == 0 : AsciiCompareNoCase(end, suffix) == 0;
}

std::string JoinPath(const std::string &folder, const std::string &name)
{
    if (folder.empty())
        return name;
    if (IsSeparator(folder.back()) || (!name.empty() && IsSeparator(name.front())))
        return folder + name;
    return folder + static_cast<char>(std::filesystem::path::preferred_separator) + name;
}

std::string ParentPath(const std::string &path)
{
    const size_t separator = path.find_last_of("/\\");
    if (separator == std::string::npos)
        return ".";
    const bool isRoot = separator == 0 || (separator == 2 && path[1] == ':');
    return path.substr(0, isRoot ? separator + 1 : separator);
}

uint32_t Utf8ToWide(const char *text, char16_t **out)
{
    *out = nullptr;
    if (!text)
        return kInvalidParameter;
    std::u16string converted;
    return Utf8ToUtf16(text, converted) ? Allocate(converted, out) : kNoUnicodeTranslation;
}

uint32_t WideToUtf8(const char16_t *text, char **out)
{
    *out = nullptr;
    if (!text)
        return kInvalidParameter;
    std::string converted;
    return Utf16ToUtf8(text, converted) ? Allocate(converted, out) : kNoUnicodeTranslation;
}

namespace {

constexpr char kDigits[] = "0123456789ABCDEF";

char Printable(uint8_t byte)
{
    return byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '.';
}

// Writes one line of `count` bytes, `perLine` wide, at `out`; where it ends. The caller saw to the room.
char *DumpLine(char *out, const char *prefix, size_t prefixLength, const uint8_t *bytes, size_t count,
               size_t perLine)
{
    memcpy(out, prefix, prefixLength);
    char *hex = out + prefixLength;
    char *text = hex + 3 * perLine;
    char *end = text + perLine;
    memset(hex, ' ', static_cast<size_t>(end - hex));
    for (size_t i = 0; i < count; ++i) {
        hex[3 * i] = kDigits[bytes[i] >> 4];
        hex[3 * i + 1] = kDigits[bytes[i] & 0xF];
        text[i] = Printable(bytes[i]);
    }
    *end++ = ' ';
    *end++ = '\n';
    return end;
}

size_t TooSmall(char *out, size_t room)
{
    return static_cast<size_t>(FormatBuffer(
        out, room, "%.*s\n", static_cast<int>(std::min<size_t>(room - 2, 64)), "BUFFER TOO SMALL"));
}

} // namespace

size_t HexDump(char *buffer, size_t size, const void *data, size_t length, int bytesPerLine, int indent)
{
    if (!buffer || size < 1 || (!data && length != 0))
        return 0;
    const auto *bytes = static_cast<const uint8_t *>(data);
    const size_t perLine = bytesPerLine > 0 ? static_cast<size_t>(bytesPerLine) : 1;
    const size_t columns = static_cast<size_t>(std::abs(static_cast<int64_t>(indent)));
    const size_t lineCost = perLine * 4 + 10 + columns;
    size_t linesLeft = (size - 1) / lineCost;
    size_t used = 0, shown = 0;
    for (; shown < length && linesLeft > 0; --linesLeft) {
        // Offsets of more than four digits make a line dearer than the reckoning above.
        char offset[32];
        const size_t offsetLength = static_cast<size_t>(
            FormatBuffer(offset, sizeof(offset), "0x%04llx: ", static_cast<unsigned long long>(shown)));
        const size_t lineColumns = indent < 0 && shown == 0 ? 0 : columns;
        if (lineColumns + offsetLength + perLine * 4 + 2 > size - 1 - used)
            break;
        memset(buffer + used, ' ', lineColumns);
        used += lineColumns;
        const size_t count = std::min(perLine, length - shown);
        const char *end = DumpLine(buffer + used, offset, offsetLength, bytes + shown, count, perLine);
        used = static_cast<size_t>(end - buffer);
        shown += count;
    }
    if (shown < length && size - used >= 3)
        return used + TooSmall(buffer + used, size - used);
    buffer[used] = 0;
    return used;
}

XString::~XString()
{
    Clear();
}

void XString::Clear()
{
    if (ownsWide)
        free(const_cast<char16_t *>(wide));
    if (ownsNarrow)
        free(const_cast<char *>(narrow));
    wide = nullptr;
    narrow = nullptr;
    ownsWide = ownsNarrow = false;
}

void XString::SetNarrow(const char *text, bool takeOwnership)
{
    Clear();
    narrow = text ? text : "";
    ownsNarrow = text && takeOwnership;
}

void XString::SetWide(const char16_t *text, bool takeOwnership)
{
    Clear();
    wide = text ? text : u"";
    ownsWide = text && takeOwnership;
}

const char *XString::GetNarrow()
{
    char *converted;
    if (!narrow && wide && WideToUtf8(wide, &converted) == 0) {
        narrow = converted;
        ownsNarrow = true;
    }
    return narrow;
}

const char16_t *XString::GetWide()
{
    char16_t *converted;
    if (!wide && narrow && Utf8ToWide(narrow, &converted) == 0) {
        wide = converted;
        ownsWide = true;
    }
    return wide;
}

} // namespace fodr::StringUtils
