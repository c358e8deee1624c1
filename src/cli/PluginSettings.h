// The plug-in's settings as people write them.
#pragma once

#include "platform/SettingsKey.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace fodr::cli {

// A setting that the plug-in reads.
struct KnownSetting {
    const char *name;
    uint32_t type;        // kReg...
    const char *standard; // what holds while it isn't set
    const char *live;     // when a running plug-in follows a change; empty if it doesn't
    const char *words;    // that it may have, with blanks between; empty if any value will do
};
const std::vector<KnownSetting> &KnownSettings();
// Without regard to case; null for any other name.
const KnownSetting *FindKnownSetting(const std::string &name);

using platform::SettingValue;

// From now on what is wrong with the settings store itself is said as a complaint.
void ComplainAboutStore();

// Whether a value is one of the setting's words, without regard to case; otherwise what was expected. One of
// another type than the setting's own was meant so.
bool IsWordOf(const KnownSetting &setting, const SettingValue &value, std::string *expected);

// From what was typed: one text, or for a list any number. None, with what was expected in `*expected`, when
// they don't fit the type.
std::optional<SettingValue> ParseSetting(uint32_t type, const std::vector<std::string> &texts,
                                         std::string *expected);
// The same texts again.
std::vector<std::string> PrintSetting(const SettingValue &value);

} // namespace fodr::cli
