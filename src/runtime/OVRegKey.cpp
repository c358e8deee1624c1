#include "runtime/OVRegKey.h"

#include "lib/unicode/CaseFolding.h"
#include "platform/Registry.h"
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

namespace {

void SetEvent(void *event)
{
    static_cast<OVEvent *>(event)->Set();
}

} // namespace

// Neither takes its lock: nobody else knows the object, and the maker may hold the poll thread's lock, which
// comes after this one.
OVRegKeyWatcher::OVRegKeyWatcher(const std::string &keyPath, RegView keyView,
                                 bool subtree) NO_THREAD_SAFETY_ANALYSIS
    : OVPollItem("OVRegKeyWatcher(" + keyPath + ")"),
      path(keyPath),
      view(keyView),
      watchSubtree(subtree),
      changeEvent(new OVEvent(false, false))
{
    OpenRegKey();
}

OVRegKeyWatcher::~OVRegKeyWatcher() = default;

bool OVRegKeyWatcher::Start(const RCPtr<OVPollThread> &pollThread)
{
    if (!pollThread) {
        LOG_DEBUG("%s: pollThread == NULL", GetName().c_str());
        return false;
    }
    OVMutexLock held(mutex);
    if (pollThread->AddItem(this, changeEvent.Get(), 0))
        return true;
    LOG_DEBUG("Failed to add %s to %s", GetName().c_str(), pollThread->GetName().c_str());
    return false;
}

void OVRegKeyWatcher::Stop()
{
    if (!Remove(true))
        LOG_DEBUG("Failed to remove %s", GetName().c_str());
}

RCPtr<OVRegValue> OVRegKeyWatcher::GetValue(const std::string &valueName, bool load) const
{
    RCPtr<OVRegValue> value(new OVRegValue(path, valueName, view));
    if (load)
        value->Load(false, LOG_LEVEL_VERBOSE);
    return value;
}

void OVRegKeyWatcher::AddValueWatcher(const RCPtr<OVRegValueWatcher> &watcher)
{
    OVMutexLock held(mutex);
    valueWatchers.emplace_back(watcher);
}

bool OVRegKeyWatcher::IsKeyFound() const
{
    OVMutexLock held(mutex);
    return keyFound;
}

bool OVRegKeyWatcher::OpenRegKey()
{
    std::string nearest = path;
    RCPtr<OVRegKey> opened;
    const uint32_t error = platform::OpenNearestKey(&nearest, [&](const std::string &tried) {
        opened = new OVRegKey(tried, view);
        return opened->OpenKey();
    });
    const bool isOpen = error == platform::kErrorSuccess;
    keyFound = isOpen && nearest == path;
    regKey = isOpen ? opened : nullptr;
    if (keyFound)
        LOG_DEBUG("Watching \"%s\"", path.c_str());
    else if (isOpen)
        LOG_DEBUG("Watching \"%s\" ... \"%s\"", nearest.c_str(), path.substr(nearest.size() + 1).c_str());
    else
        LOG_WARN("Not watching \"%s\"", path.c_str());
    return isOpen;
}

bool OVRegKeyWatcher::WatchRegKey()
{
    if (!OpenRegKey())
        return false;
    const uint32_t error =
        platform::RegistryNotify(regKey->GetHandle(), keyFound && watchSubtree,
                                 platform::NearestKeyFilter(keyFound), fodr::SetEvent, changeEvent.Get());
    if (error != platform::kErrorSuccess) {
        LOG_CODE_AT(LOG_LEVEL_ERROR, error, "RegNotifyChangeKeyValue(%s) failed", path.c_str());
        return false;
    }
    if (!keyFound && IsNearerKeyThere())
        changeEvent->Set();
    return true;
}

// No notification covers a key that was created between opening and watching.
bool OVRegKeyWatcher::IsNearerKeyThere() const
{
    const size_t end = path.find_first_of("/\\", regKey->GetPath().size() + 1);
    return OVRegKey(path.substr(0, end), view).OpenKey() == platform::kErrorSuccess;
}

bool OVRegKeyWatcher::Run(bool timedOut)
{
    std::list<RCPtr<OVRegValueWatcher>> changed;
    {
        OVMutexLock held(mutex);
        if (!timedOut) {
            SetTimeoutMS(kSettlingMS, true);
            return true;
        }
        const bool wasSettling = GetTimeoutMS() != 0;
        const bool wasFound = keyFound;
        SetTimeoutMS(-1, false);
        if (!WatchRegKey())
            return false;
        if (!wasSettling || (!wasFound && !keyFound))
            return true;
        changed = ReloadValues();
    }
    for (const RCPtr<OVRegValueWatcher> &watcher : changed)
        watcher->OnValueChanged();
    return OnKeyChanged();
}

std::list<RCPtr<OVRegValueWatcher>> OVRegKeyWatcher::ReloadValues()
{
    std::list<RCPtr<OVRegValueWatcher>> changed;
    for (auto entry = valueWatchers.begin(); entry != valueWatchers.end();) {
        RCPtr<OVRegValueWatcher> watcher = entry->Promote();
        if (!watcher) {
            entry = valueWatchers.erase(entry);
            continue;
        }
        if (watcher->Load(false, LOG_LEVEL_VERBOSE))
            changed.push_back(watcher);
        ++entry;
    }
    return changed;
}

bool OVRegKeyWatcher::OnKeyChanged()
{
    return true;
}

} // namespace fodr
