#include "platform/windows/RegistryRedirect.h"

#include "platform/SystemError.h"
#include "platform/UserFolders.h"
#include "platform/windows/WideText.h"

namespace fodr::platform {

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
