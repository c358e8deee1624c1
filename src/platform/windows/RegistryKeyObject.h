// What a RegistryKey of platform/Registry.h points to.
#pragma once

#include "platform/Registry.h"
#include "platform/windows/Win32.h"

#include <string>

namespace fodr::platform {

class RegistryKeyObject {
public:
    explicit RegistryKeyObject(HKEY opened) : key(opened) {}
    // Ends the notification, if any, and waits for a handler that is being called.
    ~RegistryKeyObject();
    RegistryKeyObject(const RegistryKeyObject &) = delete;
    RegistryKeyObject &operator=(const RegistryKeyObject &) = delete;

    HKEY Get() const { return key; }
    uint32_t Notify(bool watchSubtree, uint32_t filter, RegistryChangeHandler handler, void *context);
    uint32_t Close();

private:
    static void CALLBACK OnChanged(PTP_CALLBACK_INSTANCE, void *self, PTP_WAIT, TP_WAIT_RESULT);
    void EndNotification();

    HKEY key;
    OwnedHandle changed; // auto-reset
    PTP_WAIT wait = nullptr;
    RegistryChangeHandler onChange = nullptr; // these two are only written while the wait isn't set
    void *onChangeContext = nullptr;
};

// Where a key of the settings store is looked for, when a part of it is this process's own.
//
// The variable FODR_SETTINGS_KEY holds "FROM|TO": the key FROM below HKEY_LOCAL_MACHINE and everything below
// it is the key TO below HKEY_CURRENT_USER instead. An empty FROM takes all of HKEY_LOCAL_MACHINE. The
// variable holds for every library of the process and for its children.
inline constexpr char kRedirectVariable[] = "FODR_SETTINGS_KEY";

struct RegistryPlace {
    HKEY root;
    std::wstring path;
};

// kErrorInvalidParameter when the path isn't text or there is no such root.
uint32_t FindRegistryPlace(RegistryRoot root, const std::string &path, RegistryPlace *place);

} // namespace fodr::platform
