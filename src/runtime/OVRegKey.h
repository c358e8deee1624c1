// Keys of the settings store, named by one path string ("HKLM\Software\...").
#pragma once

#include "platform/Registry.h"
#include "runtime/RCObject.h"

#include <cstdint>
#include <string>

namespace fodr {

// What a 64-bit process sees of the registry. Without meaning, except for the display path, on Linux.
enum RegView : uint32_t {
    Win32Default = 0,
    Alternate = 1,
    Reg64Bit = 2,
    Reg32Bit = 3,
};

// One thread at a time.
class OVRegKey : public RCObject {
public:
    // `keyPath` is the root's name, a separator ('/' or a backslash) and the key's path.
    explicit OVRegKey(const std::string &keyPath, RegView keyView = Win32Default);
    ~OVRegKey() override;

    // 0 also when it is open already. A Windows error code; 11 for a path without a known root or key name. A
    // missing key (2) isn't logged.
    uint32_t OpenKey();
    uint32_t CloseKey();
    // The path as the view sees it, with "WOW6432Node\" where that applies.
    std::string GetDisplayPath() const;

    const std::string &GetPath() const { return path; }
    platform::RegistryKey GetHandle() const { return handle; }

protected:
    std::string path;
    RegView view;
    bool isOpen = false;
    platform::RegistryKey handle = nullptr;
};

// The text of one value by its full path; empty when it is missing. A log level of -1 stands for VERBOSE.
std::string ReadRegistryString(const std::string &fullPath, int32_t logLevel = -1);      // Win32Default
std::string ReadRegistryString64Bit(const std::string &fullPath, int32_t logLevel = -1); // Reg64Bit

} // namespace fodr
