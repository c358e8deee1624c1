#include "platform/windows/RegistryKeyObject.h"

#include "platform/SystemError.h"

namespace fodr::platform {

RegistryKeyObject::~RegistryKeyObject()
{
    Close();
}

uint32_t RegistryKeyObject::Close()
{
    EndNotification();
    if (!key)
        return kErrorSuccess;
    const LSTATUS result = RegCloseKey(key);
    key = nullptr;
    return static_cast<uint32_t>(result);
}

uint32_t RegistryKeyObject::Notify(bool watchSubtree, uint32_t filter, RegistryChangeHandler handler,
                                   void *context)
{
    if (!changed)
        changed = OwnedHandle(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    if (!changed)
        return GetLastError();
    if (!wait)
        wait = CreateThreadpoolWait(OnChanged, this, nullptr);
    if (!wait)
        return GetLastError();
    SetThreadpoolWait(wait, nullptr, nullptr);
    WaitForThreadpoolWaitCallbacks(wait, TRUE);
    onChange = handler;
    onChangeContext = context;
    SetThreadpoolWait(wait, changed.Get(), nullptr);
    const LSTATUS result = RegNotifyChangeKeyValue(key, watchSubtree, filter, changed.Get(), TRUE);
    if (result != ERROR_SUCCESS)
        SetThreadpoolWait(wait, nullptr, nullptr);
    return static_cast<uint32_t>(result);
}

void CALLBACK RegistryKeyObject::OnChanged(PTP_CALLBACK_INSTANCE, void *self, PTP_WAIT, TP_WAIT_RESULT)
{
    const auto *object = static_cast<RegistryKeyObject *>(self);
    object->onChange(object->onChangeContext);
}

// Closing a key signals its event: the wait has to be over before that.
void RegistryKeyObject::EndNotification()
{
    if (!wait)
        return;
    SetThreadpoolWait(wait, nullptr, nullptr);
    WaitForThreadpoolWaitCallbacks(wait, TRUE);
    CloseThreadpoolWait(wait);
    wait = nullptr;
}

} // namespace fodr::platform
