#include "cli/PluginSettings.h"

#include "cli/Console.h"
#include "lib/unicode/CaseFolding.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <sstream>

namespace fodr::cli {
namespace {

using namespace platform;

constexpr struct {
    const char *name;
    uint32_t type;
    const char *form;
} kTypes[] = {
    {"sz", kRegSz, "one text"},
    {"expand_sz", kRegExpandSz, "one text"},
    {"multi_sz", kRegMultiSz, "texts that aren't empty"},
    {"dword", kRegDword, "a number from 0 to 4294967295"},
    {"qword", kRegQword, "a number from 0 to 18446744073709551615"},
    {"binary", kRegBinary, "bytes in hexadecimal"},
};

constexpr char kFlag[] = "true false yes no 1 0";

bool IsText(uint32_t type)
{
    return type == kRegSz || type == kRegExpandSz;
}

std::string NumberBytes(uint64_t number, size_t count)
{
    std::string bytes;
    for (size_t i = 0; i < count; ++i)
        bytes += static_cast<char>(number >> (8 * i) & 0xFF);
    return bytes;
}

// Decimal, or hexadecimal behind "0x".
bool ParseNumber(const std::string &text, uint64_t largest, uint64_t *number)
{
    const bool hex = text.starts_with("0x") || text.starts_with("0X");
    const std::string digits = hex ? text.substr(2) : text;
    const char *allowed = hex ? "0123456789abcdefABCDEF" : "0123456789";
    if (digits.empty() || digits.find_first_not_of(allowed) != std::string::npos)
        return false;
    errno = 0;
    *number = std::strtoull(digits.c_str(), nullptr, hex ? 16 : 10);
    return errno == 0 && *number <= largest;
}

bool ParseHex(const std::string &text, std::string *bytes)
{
    std::string digits = text;
    std::erase(digits, ' ');
    if (digits.size() % 2 != 0 || digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        return false;
    for (size_t i = 0; i < digits.size(); i += 2)
        *bytes += static_cast<char>(std::strtoul(digits.substr(i, 2).c_str(), nullptr, 16));
    return true;
}

bool ParseBytes(uint32_t type, const std::vector<std::string> &texts, std::string *bytes)
{
    if (type == kRegMultiSz) {
        for (const std::string &text : texts) {
            if (text.empty())
                return false;
            *bytes += text + '\0';
        }
        *bytes += '\0';
        return true;
    }
    if (texts.size() != 1)
        return false;
    uint64_t number = 0;
    if (IsText(type)) {
        *bytes = texts.front() + '\0';
        return true;
    }
    if (type == kRegBinary)
        return ParseHex(texts.front(), bytes);
    const bool wide = type == kRegQword;
    if (!ParseNumber(texts.front(), wide ? UINT64_MAX : UINT32_MAX, &number))
        return false;
    *bytes = NumberBytes(number, wide ? 8 : 4);
    return true;
}

} // namespace

const std::vector<KnownSetting> &KnownSettings()
{
    static const std::vector<KnownSetting> settings = {
        {"AllowedFolders", kRegMultiSz, "no limit", "live", ""},
        {"RedirectAll", kRegDword, "0, but 1 without any settings", "", "0 1"},
        {"SharedFolders", kRegMultiSz, "none", "", ""},
        {"caseSensitivity", kRegDword, "0, a create opens what is there in another case",
         "live for new shares", "0 1 2"},
        {"dll", kRegSz, "set by fodr register", "", ""},
        {"enableBuffering", kRegSz, "true", "live", kFlag},
        {"linksOutside", kRegDword, "0, links lead nowhere but into their share", "live for new shares",
         "0 1"},
        {"logDirectory", kRegSz, "chosen by the account", "", ""},
        {"logDiskThresholdHighMB", kRegDword, "500", "live", ""},
        {"logDiskThresholdLowMB", kRegDword, "200", "live", ""},
        {"logEnabled", kRegSz, "true", "live", kFlag},
        {"logLevel", kRegSz, "INFO", "live", "ALWAYS ERROR WARN INFO DEBUG TRACE VERBOSE"},
        {"logMaxDaysKept", kRegDword, "7", "live from the next deletion on", ""},
        {"logMaxFileSizeMB", kRegDword, "by level: 15, 50, 75, 99", "live", ""},
        {"logMaxRollingFiles", kRegDword, "4", "live", ""},
        {"logRemoteAddress", kRegSz, "this machine", "", ""},
        {"logRemotePort", kRegDword, "514", "", ""},
        {"logToDebugView", kRegSz, "false", "", kFlag},
        {"logToStderr", kRegSz, "false", "", kFlag},
        {"logToStdout", kRegSz, "false", "", kFlag},
        {"logToSyslog", kRegSz, "false", "", kFlag},
        {"readOnlyShares", kRegDword, "0, the agent's permission decides", "live for new shares", "0 1"},
        {"tcpEnabled", kRegSz, "false", "", "true false"},
        {"useLocalTime", kRegSz, "true", "live", kFlag},
        {"vchanSideChannelEnabled", kRegSz, "false", "", "true false"},
    };
    return settings;
}

const KnownSetting *FindKnownSetting(const std::string &name)
{
    for (const KnownSetting &setting : KnownSettings()) {
        if (AsciiEqualsNoCase(name, setting.name))
            return &setting;
    }
    return nullptr;
}

bool IsWordOf(const KnownSetting &setting, const SettingValue &value, std::string *expected)
{
    if (!*setting.words || value.type != setting.type)
        return true;
    const std::string text = PrintSetting(value).front();
    std::istringstream words(setting.words);
    *expected = "one of";
    for (std::string word; words >> word;) {
        if (AsciiEqualsNoCase(text, word))
            return true;
        *expected += (expected->size() > 6 ? ", " : " ") + word;
    }
    return false;
}

void ComplainAboutStore()
{
    SetRegistryComplaintHandler([](const char *text) {
        Complain(text);
        return true;
    });
}

const char *SettingTypeName(uint32_t type)
{
    for (const auto &known : kTypes) {
        if (known.type == type)
            return known.name;
    }
    return "";
}

std::optional<uint32_t> SettingType(const std::string &name)
{
    for (const auto &known : kTypes) {
        if (name == known.name)
            return known.type;
    }
    return std::nullopt;
}

std::optional<SettingValue> ParseSetting(uint32_t type, const std::vector<std::string> &texts,
                                         std::string *expected)
{
    SettingValue value{type, ""};
    if (ParseBytes(type, texts, &value.bytes))
        return value;
    for (const auto &known : kTypes) {
        if (known.type == type)
            *expected = known.form;
    }
    return std::nullopt;
}

std::vector<std::string> PrintSetting(const SettingValue &value)
{
    const std::string &bytes = value.bytes;
    if (IsText(value.type))
        return {bytes.c_str()};
    std::vector<std::string> texts;
    if (value.type == kRegMultiSz) {
        for (size_t at = 0; at < bytes.size() && bytes[at] != 0; at += texts.back().size() + 1)
            texts.emplace_back(bytes.c_str() + at);
        return texts;
    }
    if (value.type == kRegDword || value.type == kRegQword) {
        uint64_t number = 0;
        for (size_t i = std::min<size_t>(bytes.size(), 8); i-- > 0;)
            number = number << 8 | static_cast<uint8_t>(bytes[i]);
        return {std::to_string(number)};
    }
    std::string hex;
    for (const char byte : bytes) {
        constexpr char kDigits[] = "0123456789abcdef";
        hex += {kDigits[static_cast<uint8_t>(byte) >> 4], kDigits[byte & 0xF]};
    }
    return {hex};
}

} // namespace fodr::cli
