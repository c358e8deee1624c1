#include "platform/linux/SettingsValue.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "lib/unicode/CaseFolding.h"
#include "lib/unicode/CodeSet.h"
#include "platform/Registry.h"

#include <charconv>
#include <cstring>
#include <glibmm/error.h>
#include <glibmm/keyfile.h>
#include <limits>

namespace fodr::platform {

namespace {

struct TypePrefix {
    std::string_view name;
    uint32_t type;
};

constexpr TypePrefix kTypePrefixes[] = {
    {"sz", kRegSz},       {"expand_sz", kRegExpandSz}, {"multi_sz", kRegMultiSz},
    {"dword", kRegDword}, {"qword", kRegQword},        {"binary", kRegBinary},
};

std::string PrefixOf(uint32_t type)
{
    for (const TypePrefix &prefix : kTypePrefixes) {
        if (prefix.type == type)
            return std::string(prefix.name) + ':';
    }
    return {};
}

// Cuts the prefix off; a text without one is kRegSz.
uint32_t TakeType(std::string &text)
{
    const size_t colon = text.find(':');
    for (const TypePrefix &prefix : kTypePrefixes) {
        if (colon != std::string::npos && AsciiEqualsNoCase(text.substr(0, colon), prefix.name)) {
            text.erase(0, colon + 1);
            return prefix.type;
        }
    }
    return kRegSz;
}

// Decimal, or hexadecimal behind "0x".
bool ParseNumber(std::string_view text, uint64_t maximum, uint64_t &number)
{
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        text.remove_prefix(2);
        base = 16;
    }
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    return error == std::errc() && end == text.data() + text.size() && number <= maximum;
}

std::string NumberBytes(uint64_t number, size_t size)
{
    std::string bytes;
    for (size_t n = 0; n < size; ++n)
        bytes.push_back(static_cast<char>(number >> (8 * n) & 0xFF));
    return bytes;
}

uint64_t NumberOf(const std::string &bytes)
{
    uint64_t number = 0;
    for (size_t n = bytes.size(); n > 0; --n)
        number = number << 8 | static_cast<unsigned char>(bytes[n - 1]);
    return number;
}

bool ParseHex(std::string_view text, std::string &bytes)
{
    if (text.size() % 2 != 0)
        return false;
    for (size_t n = 0; n < text.size(); n += 2) {
        unsigned int byte = 0;
        const auto [end, error] = std::from_chars(&text[n], &text[n] + 2, byte, 16);
        if (error != std::errc() || end != &text[n] + 2)
            return false;
        bytes.push_back(static_cast<char>(byte));
    }
    return true;
}

std::string HexOf(const std::string &bytes)
{
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const char c : bytes) {
        text.push_back(kDigits[static_cast<unsigned char>(c) >> 4]);
        text.push_back(kDigits[c & 0xF]);
    }
    return text;
}

bool IsTextType(uint32_t type)
{
    return type == kRegSz || type == kRegExpandSz || type == kRegMultiSz;
}

} // namespace

bool SettingsValue::IsText() const
{
    return IsTextType(type);
}

bool SettingsValue::WideBytes(std::string &wide) const
{
    if (!IsText()) {
        wide = bytes;
        return true;
    }
    std::u16string text;
    if (!Utf8ToUtf16(bytes, text))
        return false;
    wide.resize(text.size() * sizeof(char16_t));
    std::memcpy(wide.data(), text.data(), wide.size());
    return true;
}

bool SettingsValue::FromBytes(uint32_t type, bool wide, const void *data, size_t size, SettingsValue &value)
{
    value.type = type;
    const auto *first = static_cast<const char *>(data);
    if (!IsTextType(type)) {
        value.bytes.assign(first ? first : "", first ? size : 0);
        return (type == kRegDword && size == 4) || (type == kRegQword && size == 8) || type == kRegBinary;
    }
    std::string text(first ? first : "", first ? size : 0);
    if (wide) {
        std::u16string units(text.size() / sizeof(char16_t), u'\0');
        std::memcpy(units.data(), text.data(), units.size() * sizeof(char16_t));
        if (!Utf16ToUtf8(units, text))
            return false;
    } else {
        std::u16string units;
        if (!Utf8ToUtf16(text, units))
            return false;
    }
    value.bytes = text;
    value.SetTexts(value.Texts());
    return true;
}

// The texts of a list end at the first empty one, as in the registry.
std::vector<std::string> SettingsValue::Texts() const
{
    std::vector<std::string> texts;
    for (size_t begin = 0; begin < bytes.size();) {
        const size_t end = std::min(bytes.find('\0', begin), bytes.size());
        if (end == begin)
            break;
        texts.push_back(bytes.substr(begin, end - begin));
        if (type != kRegMultiSz)
            break;
        begin = end + 1;
    }
    return texts;
}

void SettingsValue::SetTexts(const std::vector<std::string> &texts)
{
    bytes.clear();
    for (const std::string &text : texts) {
        if (!text.empty())
            bytes.append(text).push_back('\0');
    }
    if (type == kRegMultiSz || bytes.empty())
        bytes.push_back('\0');
}

bool SettingsValue::Read(const Glib::KeyFile &file, const Glib::ustring &group, const Glib::ustring &key,
                         SettingsValue &value)
{
    try {
        std::string text = file.get_value(group, key);
        value.type = TakeType(text);
        uint64_t number = 0;
        switch (value.type) {
        case kRegDword:
            if (!ParseNumber(text, std::numeric_limits<uint32_t>::max(), number))
                return false;
            value.bytes = NumberBytes(number, 4);
            return true;
        case kRegQword:
            if (!ParseNumber(text, std::numeric_limits<uint64_t>::max(), number))
                return false;
            value.bytes = NumberBytes(number, 8);
            return true;
        case kRegBinary:
            value.bytes.clear();
            return ParseHex(text, value.bytes);
        default:
            break;
        }
        std::vector<std::string> texts;
        if (value.type == kRegMultiSz) {
            for (const Glib::ustring &entry : file.get_string_list(group, key))
                texts.push_back(entry);
        } else {
            texts.push_back(file.get_string(group, key));
        }
        if (!texts.empty())
            TakeType(texts.front());
        value.SetTexts(texts);
        return true;
    } catch (const Glib::Error &) {
        return false;
    }
}

void SettingsValue::Write(Glib::KeyFile &file, const Glib::ustring &group, const Glib::ustring &key) const
{
    switch (type) {
    case kRegDword:
    case kRegQword:
        file.set_value(group, key, PrefixOf(type) + std::to_string(NumberOf(bytes)));
        return;
    case kRegBinary:
        file.set_value(group, key, PrefixOf(type) + HexOf(bytes));
        return;
    default:
        break;
    }
    std::vector<std::string> texts = Texts();
    if (texts.empty())
        texts.emplace_back();
    texts.front().insert(0, PrefixOf(type));
    if (type == kRegMultiSz)
        file.set_string_list(group, key, std::vector<Glib::ustring>(texts.begin(), texts.end()));
    else
        file.set_string(group, key, texts.front());
}

} // namespace fodr::platform
