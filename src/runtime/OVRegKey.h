// Keys and values of the settings store, named by one path string ("HKLM\Software\...").
#pragma once

#include "platform/Registry.h"
#include "runtime/LogCall.h"
#include "runtime/OVMutex.h"
#include "runtime/RCObject.h"

#include <cstdint>
#include <string>
#include <vector>

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

// One value as it was when last loaded. Conversions are by its type; a value that isn't loaded, or of another
// type, gives the default.
class OVRegValue : public OVRegKey {
public:
    // Neither constructor loads.
    OVRegValue(const std::string &keyPath, const std::string &name, RegView keyView = Win32Default);
    // The last component is the value's name.
    explicit OVRegValue(const std::string &valuePath, RegView keyView = Win32Default);

    // True when the value is loaded now and differs from before. Failures are logged at `logLevel` and clear
    // it.
    bool Load(bool readWide, int32_t logLevel);
    // Forgets the value and closes the key; with `reload` loads again.
    void Clear(bool reload);
    void LogData(int32_t logLevel);

    bool ToBool(bool defaultValue);
    uint32_t ToDword(uint32_t defaultValue);
    uint64_t ToQword(uint64_t defaultValue);
    // True when the value could be made a text; otherwise `value` is the default.
    bool ToString(std::string &value, const std::string &defaultValue);
    bool ToWideString(std::u16string &value, const std::u16string &defaultValue);

    bool IsLoaded() const { return loaded; }
    uint32_t GetType() const { return static_cast<uint32_t>(type); }
    const std::string &GetFullPath() const { return fullPath; }

private:
    // The bytes of the value as text of its width, up to the first terminator, as UTF-8.
    bool TextOfData(std::string &text) const;
    bool NumberOfData(uint64_t &number, uint64_t defaultValue) const;

    OVMutex mutex; // guards data, size, type and wide while they are replaced
    std::string fullPath;
    std::string valueName;
    bool loaded = false;
    std::vector<uint8_t> data; // `size` bytes and a terminator of either width
    uint32_t size = 0;
    int32_t type = 0;
    bool wide = false;
};

// The text of one value by its full path; empty when it is missing. A log level of -1 stands for VERBOSE.
std::string ReadRegistryString(const std::string &fullPath, int32_t logLevel = -1);      // Win32Default
std::string ReadRegistryString64Bit(const std::string &fullPath, int32_t logLevel = -1); // Reg64Bit

} // namespace fodr
