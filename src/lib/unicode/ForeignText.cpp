#include "lib/unicode/ForeignText.h"

#include "lib/unicode/CodeSet.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

namespace fodr {

namespace {

constexpr size_t kLongestPath = 4096;

bool IsControl(char32_t c)
{
    return c < 0x20 || (c >= 0x7F && c < 0xA0);
}

// Marks of direction, which can show a text's parts in another order, and separators of lines.
bool IsMisleading(char32_t c)
{
    return c == 0x61C || c == 0x200E || c == 0x200F || (c >= 0x2028 && c <= 0x202E) ||
           (c >= 0x2066 && c <= 0x2069) || c == 0xFEFF;
}

template <class... Numbers> std::string Format(const char *format, Numbers... numbers)
{
    char text[16];
    const int length = std::snprintf(text, sizeof(text), format, numbers...);
    return {text, static_cast<size_t>(length)};
}

// Calls `take(code point, its bytes)`; of a byte that is no text the code point is kInvalid.
constexpr char32_t kInvalid = 0xFFFFFFFF;
template <class Take> void ForEachCodePoint(std::string_view text, Take take)
{
    while (!text.empty()) {
        const auto *bytes = reinterpret_cast<const uint8_t *>(text.data());
        const DecodedCodePoint decoded = DecodeUtf8(bytes, text.size());
        const size_t taken = std::max<size_t>(decoded.taken, 1);
        take(decoded.taken == 0 ? kInvalid : decoded.codePoint, text.substr(0, taken));
        text.remove_prefix(taken);
    }
}

} // namespace

std::string Escaped(std::string_view text)
{
    std::string shown;
    shown.reserve(text.size());
    ForEachCodePoint(text, [&shown](char32_t c, std::string_view bytes) {
        if (c == kInvalid)
            shown += Format("\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(bytes[0])));
        else if (IsControl(c))
            shown += Format("\\x%02x", static_cast<unsigned>(c));
        else if (IsMisleading(c))
            shown += Format("\\u%04x", static_cast<unsigned>(c));
        else
            shown += bytes;
    });
    return shown;
}

std::string QuotedJson(std::string_view text)
{
    std::string quoted = "\"";
    quoted.reserve(text.size() + 2);
    ForEachCodePoint(text, [&quoted](char32_t c, std::string_view bytes) {
        if (c == '"' || c == '\\')
            quoted += {'\\', bytes[0]};
        else if (c == kInvalid)
            quoted += "\xEF\xBF\xBD";
        else if (IsControl(c) || IsMisleading(c))
            quoted += Format("\\u%04x", static_cast<unsigned>(c));
        else
            quoted += bytes;
    });
    return quoted + "\"";
}

bool IsPlainAbsolutePath(std::string_view text)
{
    if (!text.starts_with('/') || text.size() > kLongestPath || Escaped(text) != text)
        return false;
    std::string_view rest = text.substr(1);
    while (!rest.empty()) {
        const size_t end = std::min(rest.find('/'), rest.size());
        const std::string_view component = rest.substr(0, end);
        if (component.empty() || component == "." || component == "..")
            return false;
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return text.size() == 1 || !text.ends_with('/');
}

namespace {

constexpr std::string_view kVendor = "vid-";
constexpr std::string_view kProduct = "_pid-";
constexpr size_t kIdLength = 4;

// Takes `mark` and four digits or "*" from the front of the text; false when they aren't there.
bool TakeId(std::string_view &text, std::string_view mark, std::string &ids)
{
    if (!text.starts_with(mark) || text.size() < mark.size() + kIdLength)
        return false;
    const std::string_view id = text.substr(mark.size(), kIdLength);
    text.remove_prefix(mark.size() + kIdLength);
    ids += id;
    return std::all_of(id.begin(), id.end(),
                       [](char c) { return c == '*' || std::isxdigit(static_cast<unsigned char>(c)); });
}

} // namespace

bool ParseDeviceRule(std::string_view rule, std::string &ids)
{
    ids.clear();
    return TakeId(rule, kVendor, ids) && TakeId(rule, kProduct, ids) && rule.empty();
}

} // namespace fodr
