#include "cli/PluginSettings.h"

#include "cli/Console.h"
#include "lib/unicode/CaseFolding.h"
#include "platform/SettingsKey.h"

#include <sstream>

namespace fodr::cli {
namespace {

using namespace platform;

// What a value of the type is written as.
const char *FormOf(uint32_t type)
{
    switch (type) {
    case kRegMultiSz:
        return "texts that aren't empty";
    case kRegDword:
        return "a number from 0 to 4294967295";
    case kRegQword:
        return "a number from 0 to 18446744073709551615";
    case kRegBinary:
        return "bytes in hexadecimal";
    default:
        return "one text";
    }
}

constexpr char kFlag[] = "true false yes no 1 0";

bool IsText(uint32_t type)
{
    return type == kRegSz || type == kRegExpandSz;
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
    if (IsText(type)) {
        *bytes = texts.front() + '\0';
        return true;
    }
    std::string text = texts.front();
    if (type == kRegBinary)
        std::erase(text, ' ');
    const auto made = SettingBytes(type, text);
    *bytes = made.value_or("");
    return made.has_value();
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

std::optional<SettingValue> ParseSetting(uint32_t type, const std::vector<std::string> &texts,
                                         std::string *expected)
{
    SettingValue value{type, ""};
    if (ParseBytes(type, texts, &value.bytes))
        return value;
    *expected = FormOf(type);
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
    return {SettingText(value.type, bytes)};
}

} // namespace fodr::cli
