// Keys of the settings store and their values. A key is named by one path string ("HKLM\Software\...").
#pragma once

#include "lib/misc/Mutex.h"
#include "platform/Registry.h"
#include "runtime/OVMutex.h"
#include "runtime/OVPollThread.h"
#include "runtime/RCObject.h"

#include <cstdint>
#include <list>
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

// The text of one value by its full path; empty when it is missing. A log level of -1 stands for VERBOSE.
std::string ReadRegistryString(const std::string &fullPath, int32_t logLevel = -1);      // Win32Default
std::string ReadRegistryString64Bit(const std::string &fullPath, int32_t logLevel = -1); // Reg64Bit

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

// A value that follows its key: the extension point of OVRegKeyWatcher.
class OVRegValueWatcher : public OVRegValue {
public:
    using OVRegValue::OVRegValue;

    // Called, without a lock held, when its key changed and the value was found to differ.
    virtual void OnValueChanged() {}
};

// Watches a key of the settings store, also one that doesn't exist yet: then the nearest key above it.
// A change is reported once it has settled: the notification isn't armed again for the length of kSettlingMS,
// so that changes in that time are one. Any thread may call; Run is the poll thread's. The lock of the poll
// thread may be taken under the watcher's own, never the other way round.
class OVRegKeyWatcher : public OVPollItem {
public:
    static constexpr int32_t kSettlingMS = 2000;

    // Opens what there is at once. `keyPath` as for OVRegKey.
    OVRegKeyWatcher(const std::string &keyPath, RegView keyView, bool subtree);
    ~OVRegKeyWatcher() override;

    // Watches on this thread from now on. False for null and when the thread doesn't take it.
    bool Start(const RCPtr<OVPollThread> &pollThread);
    // No call of OnKeyChanged is under way or comes after it, except when it is called from there.
    void Stop();

    // A value of the key as it is now, with `load`; else not yet loaded.
    RCPtr<OVRegValue> GetValue(const std::string &valueName, bool load) const;
    void AddValueWatcher(const RCPtr<OVRegValueWatcher> &watcher);
    const std::string &GetPath() const { return path; }
    // Whether the key itself was there when last looked for.
    bool IsKeyFound() const;

    bool Run(bool timedOut) override;
    // The key, or what it holds, came, went or changed. Called without a lock held. False ends the watching.
    virtual bool OnKeyChanged();

private:
    bool OpenRegKey() REQUIRES(mutex);
    bool WatchRegKey() REQUIRES(mutex);
    bool IsNearerKeyThere() const REQUIRES(mutex);
    std::list<RCPtr<OVRegValueWatcher>> ReloadValues() REQUIRES(mutex);

    mutable OVMutex mutex;
    const std::string path;
    const RegView view;
    bool keyFound GUARDED_BY(mutex) = false;
    const bool watchSubtree;
    const RCPtr<OVEvent> changeEvent; // outlives the notifications of regKey
    RCPtr<OVRegKey> regKey GUARDED_BY(mutex);
    std::list<WkPtr<OVRegValueWatcher>> valueWatchers GUARDED_BY(mutex);
};

} // namespace fodr
