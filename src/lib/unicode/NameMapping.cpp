#include "lib/unicode/NameMapping.h"

#include "lib/unicode/CodePoint.h"

#include <array>
#include <cstdint>

namespace fodr {

namespace {

constexpr char32_t kMappedCharacter = 0xF000;
constexpr char32_t kMappedByte = 0xF700;

// ASCII that an NT name can't hold.
constexpr std::array<bool, 128> kForbidden = [] {
    std::array<bool, 128> table{};
    for (size_t c = 1; c < 0x20; ++c)
        table[c] = true;
    for (char c : {'"', '*', '<', '>', '?', '|', ':', '\\'})
        table[static_cast<size_t>(c)] = true;
    return table;
}();

bool IsMappedCharacter(char32_t c)
{
    return c >= kMappedCharacter && c < kMappedCharacter + kForbidden.size() &&
           kForbidden[c - kMappedCharacter];
}

bool IsMappedByte(char32_t c)
{
    return c >= kMappedByte + 0x80 && c <= kMappedByte + 0xFF;
}

const uint8_t *Bytes(std::string_view text)
{
    return reinterpret_cast<const uint8_t *>(text.data());
}

void AppendNtName(std::string_view name, std::u16string &out)
{
    const uint8_t *bytes = Bytes(name);
    for (size_t i = 0; i < name.size();) {
        if (bytes[i] < 0x80) {
            const char16_t c = bytes[i++];
            out += kForbidden[c] ? static_cast<char16_t>(kMappedCharacter + c) : c;
            continue;
        }
        const DecodedCodePoint decoded = DecodeUtf8(bytes + i, name.size() - i);
        const bool valid =
            decoded.taken != 0 && !IsMappedCharacter(decoded.codePoint) && !IsMappedByte(decoded.codePoint);
        if (!valid) {
            // A reserved code point has no ASCII byte, so taking one byte makes the next ones fail as well.
            out += static_cast<char16_t>(kMappedByte + bytes[i++]);
            continue;
        }
        uint8_t units[4];
        const size_t count = EncodeUtf16(decoded.codePoint, units);
        for (size_t k = 0; k < count; ++k)
            out += static_cast<char16_t>(units[2 * k] | units[2 * k + 1] << 8);
        i += decoded.taken;
    }
}

bool AppendPosixName(std::u16string_view name, std::string &out)
{
    const uint8_t *units = reinterpret_cast<const uint8_t *>(name.data());
    const size_t start = out.size();
    bool hasMappedBytes = false;
    for (size_t i = 0; i < name.size();) {
        const DecodedCodePoint decoded = DecodeUtf16(units, i, name.size());
        const char32_t c = decoded.codePoint;
        if (decoded.taken == 0 || c == 0 || c == '/' || (c < 0x80 && kForbidden[c]))
            return false;
        i += decoded.taken;
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (IsMappedCharacter(c)) {
            out += static_cast<char>(c - kMappedCharacter);
        } else if (IsMappedByte(c)) {
            out += static_cast<char>(c - kMappedByte);
            hasMappedBytes = true;
        } else {
            uint8_t bytes[4];
            out.append(reinterpret_cast<const char *>(bytes), EncodeUtf8(c, bytes));
        }
    }
    if (!hasMappedBytes)
        return true;
    // Mapped bytes that together are valid UTF-8 are the second spelling of a name: it has one already.
    std::u16string back;
    AppendNtName(std::string_view(out).substr(start), back);
    return back == name;
}

bool IsNtSeparator(char16_t c)
{
    return c == u'\\' || c == u'/';
}

} // namespace

std::u16string NtNameFromPosix(std::string_view name)
{
    std::u16string out;
    out.reserve(name.size());
    AppendNtName(name, out);
    return out;
}

bool PosixNameFromNt(std::u16string_view name, std::string &out)
{
    out.clear();
    out.reserve(name.size());
    if (AppendPosixName(name, out))
        return true;
    out.clear();
    return false;
}

std::u16string NtPathFromPosix(std::string_view path)
{
    std::u16string out;
    out.reserve(path.size());
    for (size_t begin = 0;;) {
        const size_t end = path.find('/', begin);
        AppendNtName(path.substr(begin, end - begin), out);
        if (end == std::string_view::npos)
            return out;
        out += u'\\';
        begin = end + 1;
    }
}

bool PosixPathFromNt(std::u16string_view path, std::string &out)
{
    out.clear();
    out.reserve(path.size());
    size_t begin = 0;
    for (size_t end = 0; end <= path.size(); ++end) {
        if (end < path.size() && !IsNtSeparator(path[end]))
            continue;
        if (!AppendPosixName(path.substr(begin, end - begin), out)) {
            out.clear();
            return false;
        }
        if (end < path.size())
            out += '/';
        begin = end + 1;
    }
    return true;
}

} // namespace fodr
