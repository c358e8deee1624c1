// What a RegistryKey of platform/Registry.h points to.
#pragma once

#include "platform/Registry.h"
#include "platform/windows/OwnedHandle.h"

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

} // namespace fodr::platform
