// How the values of settings are written: in the settings files and by `fodr config`.
#pragma once

#include "platform/Registry.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace fodr::platform {

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
