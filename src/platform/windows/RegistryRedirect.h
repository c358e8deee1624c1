// Where a key of the settings store is looked for, when a part of it is this process's own.
//
// The variable FODR_SETTINGS_KEY holds "FROM|TO": the key FROM below HKEY_LOCAL_MACHINE and everything below
// it is the key TO below HKEY_CURRENT_USER instead. An empty FROM takes all of HKEY_LOCAL_MACHINE. The
// variable holds for every library of the process and for its children.
#pragma once

#include "platform/Registry.h"
#include "platform/windows/Win32.h"

#include <string>

namespace fodr::platform {

inline constexpr char kRedirectVariable[] = "FODR_SETTINGS_KEY";

struct RegistryPlace {
    HKEY root;
    std::wstring path;
};

// kErrorInvalidParameter when the path isn't text or there is no such root.
uint32_t FindRegistryPlace(RegistryRoot root, const std::string &path, RegistryPlace *place);

} // namespace fodr::platform
