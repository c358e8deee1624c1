#include "lib/unicode/NameMapping.h"

#include "lib/unicode/CodeSet.h"

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

// One code point of an NT name to at most four bytes at `out`; the count, or 0 for what a name never holds.
size_t EncodePosix(char32_t c, uint8_t *out)
{
    if (c == 0 || c == '/' || (c < 0x80 && kForbidden[c]))
        return 0;
    if (IsMappedCharacter(c))
        c -= kMappedCharacter;
    if (!IsMappedByte(c))
        return EncodeUtf8(c, out);
    *out = static_cast<uint8_t>(c - kMappedByte);
    return 1;
}

bool AppendPosixName(std::u16string_view name, std::string &out)
{
    const uint8_t *units = reinterpret_cast<const uint8_t *>(name.data());
    const size_t start = out.size();
    out.resize(start + name.size() * 3);
    uint8_t *const first = reinterpret_cast<uint8_t *>(out.data()) + start;
    uint8_t *end = first;
    bool hasMappedBytes = false;
    for (size_t i = 0; i < name.size();) {
        const DecodedCodePoint decoded = DecodeUtf16(units, i, name.size());
        const size_t written = decoded.taken ? EncodePosix(decoded.codePoint, end) : 0;
        if (written == 0)
            return false;
        hasMappedBytes |= IsMappedByte(decoded.codePoint);
        end += written;
        i += decoded.taken;
    }
    out.resize(start + static_cast<size_t>(end - first));
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

void AppendNtName(std::string_view name, std::u16string &out)
{
    // A byte gives at most one unit.
    const size_t start = out.size();
    out.resize(start + name.size());
    char16_t *end = out.data() + start;
    const uint8_t *bytes = Bytes(name);
    for (size_t i = 0; i < name.size();) {
        if (bytes[i] < 0x80) {
            const char16_t c = bytes[i++];
            *end++ = kForbidden[c] ? static_cast<char16_t>(kMappedCharacter + c) : c;
            continue;
        }
        const DecodedCodePoint decoded = DecodeUtf8(bytes + i, name.size() - i);
        const bool valid =
            decoded.taken != 0 && !IsMappedCharacter(decoded.codePoint) && !IsMappedByte(decoded.codePoint);
        if (!valid) {
            // The later bytes of a reserved code point lead no sequence, so each of them comes by here as
            // well.
            *end++ = static_cast<char16_t>(kMappedByte + bytes[i++]);
            continue;
        }
        end += EncodeUtf16(decoded.codePoint, reinterpret_cast<uint8_t *>(end));
        i += decoded.taken;
    }
    out.resize(static_cast<size_t>(end - out.data()));
}

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
