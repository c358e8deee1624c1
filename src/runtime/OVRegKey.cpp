#include "runtime/OVRegKey.h"

#include "lib/unicode/CaseFolding.h"
#include "platform/SystemError.h"
#include "runtime/LogCall.h"

#include <mutex>

namespace fodr {

namespace {

struct RootName {
    const char *name;
    platform::RegistryRoot root;
};

constexpr RootName kRootNames[] = {
    {"HKLM", platform::RegistryRoot::LocalMachine},
    {"HKEY_LOCAL_MACHINE", platform::RegistryRoot::LocalMachine},
    {"HKCU", platform::RegistryRoot::CurrentUser},
    {"HKEY_CURRENT_USER", platform::RegistryRoot::CurrentUser},
    {"HKCR", platform::RegistryRoot::ClassesRoot},
    {"HKEY_CLASSES_ROOT", platform::RegistryRoot::ClassesRoot},
    {"HKCC", platform::RegistryRoot::CurrentConfig},
    {"HKEY_CURRENT_CONFIG", platform::RegistryRoot::CurrentConfig},
    {"HKU", platform::RegistryRoot::Users},
    {"HKEY_USERS", platform::RegistryRoot::Users},
};

constexpr const char *kOpenKey = "OVRegKey::OpenKey()";

uint32_t AccessOf(RegView view)
{
    switch (view) {
    case Alternate:
    case Reg32Bit:
        return platform::kRegKeyRead | platform::kRegKeyWow64Key32;
    case Reg64Bit:
        return platform::kRegKeyRead | platform::kRegKeyWow64Key64;
    case Win32Default:
        break;
    }
    return platform::kRegKeyRead;
}

bool LogComplaint(const char *text)
{
    if (!IsLogEnabled(LOG_LEVEL_WARN))
        return false;
    LogWrite(kOpenKey, LOG_LEVEL_WARN, "%s", text);
    return true;
}

} // namespace

OVRegKey::OVRegKey(const std::string &keyPath, RegView keyView) : path(keyPath), view(keyView)
{
    static std::once_flag once;
    std::call_once(once, [] { platform::SetRegistryComplaintHandler(LogComplaint); });
}

OVRegKey::~OVRegKey()
{
    CloseKey();
}

uint32_t OVRegKey::OpenKey()
{
    if (isOpen)
        return platform::kErrorSuccess;
    const size_t separator = path.find_first_of("/\\");
    if (separator == std::string::npos) {
        LOG_WARN("Missing root key \"%s\"", path.c_str());
        return platform::kErrorBadFormat;
    }
    const std::string rootText = path.substr(0, separator);
    const RootName *found = nullptr;
    for (const RootName &row : kRootNames) {
        if (AsciiEqualsNoCase(row.name, rootText))
            found = &row;
    }
    if (!found) {
        LOG_WARN("Invalid root key \"%s\"", path.c_str());
        return platform::kErrorBadFormat;
    }
    const std::string keyName = path.substr(separator + 1);
    if (keyName.empty()) {
        LOG_WARN("Missing key name \"%s\"", path.c_str());
        return platform::kErrorBadFormat;
    }
    uint32_t error = platform::RegistryOpen(found->root, keyName, AccessOf(view), &handle);
    if (error == platform::kErrorInvalidData)
        error = platform::kErrorFileNotFound; // the store has said what is wrong with it
    if (error == platform::kErrorSuccess)
        isOpen = true;
    else if (error != platform::kErrorFileNotFound)
        LOG_CODE_AT(LOG_LEVEL_ERROR, error, "RegOpenKeyEx(%s) failed", path.c_str());
    return error;
}

uint32_t OVRegKey::CloseKey()
{
    if (!isOpen)
        return platform::kErrorSuccess;
    isOpen = false;
    const uint32_t error = platform::RegistryClose(handle);
    handle = nullptr;
    if (error != platform::kErrorSuccess)
        LOG_CODE_AT(LOG_LEVEL_ERROR, error, "RegCloseKey(%s) failed", path.c_str());
    return error;
}

std::string OVRegKey::GetDisplayPath() const
{
    constexpr std::string_view kSoftware = "\\SOFTWARE\\";
    const size_t found = path.find(kSoftware);
    if ((view != Alternate && view != Reg32Bit) || found == std::string::npos)
        return path;
    const size_t end = found + kSoftware.size();
    return path.substr(0, end) + "WOW6432Node\\" + path.substr(end);
}

} // namespace fodr
