#include "platform/SettingsKey.h"

#include "lib/unicode/CaseFolding.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <charconv>
#include <limits>

namespace fodr::platform {

namespace {

constexpr struct {
    std::string_view name;
    uint32_t type;
} kTypes[] = {
    {"sz", kRegSz},       {"expand_sz", kRegExpandSz}, {"multi_sz", kRegMultiSz},
    {"dword", kRegDword}, {"qword", kRegQword},        {"binary", kRegBinary},
};

template <typename Number> bool ReadWhole(std::string_view text, int base, Number &number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    return error == std::errc() && end == text.data() + text.size();
}

std::optional<std::string> BytesOfHex(std::string_view text)
{
    std::string bytes;
    if (text.size() % 2 != 0)
        return std::nullopt;
    for (; !text.empty(); text.remove_prefix(2)) {
        uint8_t byte = 0;
        if (!ReadWhole(text.substr(0, 2), 16, byte))
            return std::nullopt;
        bytes.push_back(static_cast<char>(byte));
    }
    return bytes;
}

} // namespace

SettingsKey::SettingsKey(const std::string &path, Access access)
    : result(access == Access::Read
                 ? RegistryOpen(RegistryRoot::LocalMachine, path, kRegKeyRead, &key)
                 : RegistryCreate(RegistryRoot::LocalMachine, path, kRegKeyAllAccess, &key))
{}

SettingsKey::~SettingsKey()
{
    if (result == kErrorSuccess)
        RegistryClose(key);
}

uint32_t SettingsKey::Query(const std::string &name, SettingValue *value) const
{
    uint32_t outcome = result == kErrorSuccess ? kErrorMoreData : result;
    while (outcome == kErrorMoreData) { // it may grow between the two calls
        uint32_t size = 0;
        outcome = RegistryQuery(key, name, false, &value->type, nullptr, &size);
        value->bytes.assign(size, 0);
        if (outcome == kErrorSuccess)
            outcome = RegistryQuery(key, name, false, &value->type, value->bytes.data(), &size);
    }
    return outcome;
}

std::optional<SettingValue> SettingsKey::Read(const std::string &name) const
{
    SettingValue value;
    return Query(name, &value) == kErrorSuccess ? std::optional(value) : std::nullopt;
}

std::string_view SettingTypeName(uint32_t type)
{
    for (const auto &known : kTypes) {
        if (known.type == type)
            return known.name;
    }
    return "";
}

std::optional<uint32_t> SettingTypeOf(std::string_view name)
{
    for (const auto &known : kTypes) {
        if (AsciiEqualsNoCase(name, known.name))
            return known.type;
    }
    return std::nullopt;
}

std::optional<std::string> SettingBytes(uint32_t type, std::string_view text)
{
    if (type == kRegBinary)
        return BytesOfHex(text);
    const bool hex = text.starts_with("0x") || text.starts_with("0X");
    const size_t size = type == kRegQword ? 8 : 4;
    uint64_t number = 0;
    if (!ReadWhole(text.substr(hex ? 2 : 0), hex ? 16 : 10, number) ||
        (size == 4 && number > std::numeric_limits<uint32_t>::max()))
        return std::nullopt;
    std::string bytes;
    for (size_t n = 0; n < size; ++n)
        bytes.push_back(static_cast<char>(number >> (8 * n) & 0xFF));
    return bytes;
}

std::string SettingText(uint32_t type, std::string_view bytes)
{
    if (type == kRegDword || type == kRegQword) {
        uint64_t number = 0;
        for (size_t n = std::min<size_t>(bytes.size(), 8); n > 0; --n)
            number = number << 8 | static_cast<uint8_t>(bytes[n - 1]);
        return std::to_string(number);
    }
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const char byte : bytes)
        text += {kDigits[static_cast<uint8_t>(byte) >> 4], kDigits[byte & 0xF]};
    return text;
}

} // namespace fodr::platform
