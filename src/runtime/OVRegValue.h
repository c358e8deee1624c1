// Values of the settings store.
#pragma once

#include "lib/misc/Mutex.h"
#include "runtime/OVMutex.h"
#include "runtime/OVRegKey.h"

#include <cstdint>
#include <string>
#include <vector>

namespace fodr {

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

    bool IsLoaded();
    uint32_t GetType(); // kReg..., while loaded
    const std::string &GetFullPath() const { return fullPath; }

private:
    // The bytes of the value as text of its width, up to the first terminator, as UTF-8.
    bool TextOfData(std::string &text) const REQUIRES(mutex);
    bool NumberOfData(uint64_t &number) const REQUIRES(mutex);

    OVMutex mutex;
    std::string fullPath;
    std::string valueName;
    bool loaded GUARDED_BY(mutex) = false;
    std::vector<uint8_t> data GUARDED_BY(mutex); // `size` bytes and a terminator of either width
    uint32_t size GUARDED_BY(mutex) = 0;
    int32_t type GUARDED_BY(mutex) = 0;
    bool wide GUARDED_BY(mutex) = false;
};

} // namespace fodr
