// A key of the settings store that closes itself, and how values are written: in the settings files and by
// `fodr config`.
#pragma once

#include "platform/Registry.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace fodr::platform {

struct SettingValue {
    uint32_t type = kRegNone;
    std::string bytes; // texts as UTF-8 with terminators, numbers little-endian
};

class SettingsKey {
public:
    enum class Access { Read, Write };

    // A path below LocalMachine. For writing a missing key is made.
    explicit SettingsKey(const std::string &path = kPluginSettingsKey, Access access = Access::Read);
    ~SettingsKey();
    SettingsKey(const SettingsKey &) = delete;
    SettingsKey &operator=(const SettingsKey &) = delete;

    // Of opening it.
    uint32_t Result() const { return result; }
    RegistryKey Get() const { return key; }

    // kErrorFileNotFound when it isn't set.
    uint32_t Query(const std::string &name, SettingValue *value) const;
    // None when it isn't set or can't be read.
    std::optional<SettingValue> Read(const std::string &name) const;

private:
    RegistryKey key = nullptr;
    uint32_t result;
};

// "sz", "expand_sz", "multi_sz", "dword", "qword", "binary"; empty, or none, for what has no name here. The
// name counts in any case.
std::string_view SettingTypeName(uint32_t type);
std::optional<uint32_t> SettingTypeOf(std::string_view name);

// The bytes of a number or of binary data, little-endian. Numbers are decimal, or hexadecimal behind "0x".
// None for a text that doesn't fit the type.
std::optional<std::string> SettingBytes(uint32_t type, std::string_view text);
// The same text again; of a type without a name, its bytes.
std::string SettingText(uint32_t type, std::string_view bytes);

} // namespace fodr::platform
