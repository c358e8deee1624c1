#include "platform/windows/RegistryKeyObject.h"

#include "platform/Files.h"
#include "platform/SystemError.h"
#include "platform/windows/Win32.h"

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

namespace {

HKEY RootKey(RegistryRoot root)
{
    switch (root) {
    case RegistryRoot::ClassesRoot:
        return HKEY_CLASSES_ROOT;
    case RegistryRoot::CurrentUser:
        return HKEY_CURRENT_USER;
    case RegistryRoot::LocalMachine:
        return HKEY_LOCAL_MACHINE;
    case RegistryRoot::Users:
        return HKEY_USERS;
    case RegistryRoot::CurrentConfig:
        return HKEY_CURRENT_CONFIG;
    }
    return nullptr;
}

bool EqualWithoutCase(std::wstring_view a, std::wstring_view b)
{
    return CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()),
                                TRUE) == CSTR_EQUAL;
}

// Whether `path` is `from` or lies below it; `rest` is what follows, with its separator.
bool IsBelow(std::wstring_view path, std::wstring_view from, std::wstring_view *rest)
{
    if (path.size() < from.size() || !EqualWithoutCase(path.substr(0, from.size()), from))
        return false;
    *rest = path.substr(from.size());
    return from.empty() || rest->empty() || rest->front() == L'\\';
}

void Redirect(RegistryPlace *place)
{
    std::wstring redirection;
    const std::string variable = GetEnvironment(kRedirectVariable);
    if (variable.empty() || !Widen(variable, redirection))
        return;
    const size_t bar = redirection.find(L'|');
    std::wstring_view rest;
    if (bar == std::wstring::npos ||
        !IsBelow(place->path, std::wstring_view(redirection).substr(0, bar), &rest))
        return;
    std::wstring target = redirection.substr(bar + 1);
    if (!rest.empty() && rest.front() != L'\\')
        target.push_back(L'\\');
    target += rest;
    *place = {HKEY_CURRENT_USER, target};
}

} // namespace

uint32_t FindRegistryPlace(RegistryRoot root, const std::string &path, RegistryPlace *place)
{
    place->root = RootKey(root);
    if (!place->root || !Widen(path, place->path))
        return kErrorInvalidParameter;
    if (root == RegistryRoot::LocalMachine)
        Redirect(place);
    return kErrorSuccess;
}

} // namespace fodr::platform
