#include "runtime/StringUtils.h"

#include "lib/unicode/CaseFolding.h"
#include "lib/unicode/CodeSet.h"

#include <algorithm>
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

} // namespace fodr::StringUtils
