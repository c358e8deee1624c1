// The private store is a volatile key of the user, to which this process's view of the machine's key is
// redirected. Each state is a key of its own, so that readers see one whole.
#include "platform/Files.h"
#include "platform/Process.h"
#include "platform/Registry.h"
#include "platform/SystemError.h"
#include "platform/windows/RegistryKeyObject.h"
#include "platform/windows/Win32.h"

namespace fodr::platform {

namespace {

constexpr wchar_t kStores[] = L"Software\\fodr\\Private";

class OwnedKey {
public:
    OwnedKey() = default;
    ~OwnedKey()
    {
        if (key)
            RegCloseKey(key);
    }
    OwnedKey(const OwnedKey &) = delete;
    OwnedKey &operator=(const OwnedKey &) = delete;

    HKEY Get() const { return key; }
    HKEY *Out() { return &key; }
    HKEY Release() { return std::exchange(key, nullptr); }

private:
    HKEY key = nullptr;
};

LSTATUS MakeVolatileKey(const std::wstring &path, OwnedKey *key)
{
    return RegCreateKeyExW(HKEY_CURRENT_USER, path.c_str(), 0, nullptr, REG_OPTION_VOLATILE, KEY_ALL_ACCESS,
                           nullptr, key->Out(), nullptr);
}

// Without the keys below, which a settings reader has no use for.
LSTATUS CopyValues(HKEY from, HKEY to)
{
    constexpr DWORD kLongestName = 16384; // with its end
    DWORD longest = 0;
    LSTATUS result = RegQueryInfoKeyW(from, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                      nullptr, &longest, nullptr, nullptr);
    std::vector<BYTE> data(longest + 1);
    std::wstring name(kLongestName, L'\0');
    for (DWORD index = 0; result == ERROR_SUCCESS;) {
        DWORD type = REG_NONE;
        auto length = static_cast<DWORD>(name.size());
        auto size = static_cast<DWORD>(data.size());
        result = RegEnumValueW(from, index, name.data(), &length, nullptr, &type, data.data(), &size);
        if (result == ERROR_MORE_DATA) { // it has grown meanwhile
            data.resize(data.size() * 2);
            result = ERROR_SUCCESS;
        } else if (result == ERROR_SUCCESS) {
            result = RegSetValueExW(to, name.c_str(), 0, type, data.data(), size);
            ++index;
        }
    }
    return result == ERROR_NO_MORE_ITEMS ? ERROR_SUCCESS : result;
}

// Stores of processes that are gone.
void RemoveLeftOvers()
{
    OwnedKey stores;
    if (RegOpenKeyExW(HKEY_CURRENT_USER, kStores, 0, KEY_ALL_ACCESS, stores.Out()) != ERROR_SUCCESS)
        return;
    wchar_t name[256];
    std::vector<std::wstring> dead;
    for (DWORD index = 0;; ++index) {
        DWORD length = sizeof(name) / sizeof(name[0]);
        if (RegEnumKeyExW(stores.Get(), index, name, &length, nullptr, nullptr, nullptr, nullptr) !=
            ERROR_SUCCESS)
            break;
        const auto id = static_cast<uint32_t>(wcstoul(name, nullptr, 10));
        if (id == CurrentProcessId() || !ProcessExists(id))
            dead.emplace_back(name);
    }
    for (const std::wstring &store : dead)
        RegDeleteTreeW(stores.Get(), store.c_str());
}

class WindowsPrivateStore final : public PrivateStore {
public:
    WindowsPrivateStore(std::string key, RegistryPlace userPlace)
        : keyPath(std::move(key)), user(std::move(userPlace)),
          root(std::wstring(kStores) + L'\\' + std::to_wstring(CurrentProcessId()))
    {}

    ~WindowsPrivateStore() override
    {
        watched.reset();
        SetEnvironment(kRedirectVariable, "");
        RegDeleteTreeW(HKEY_CURRENT_USER, root.c_str());
        RegDeleteKeyW(HKEY_CURRENT_USER, root.c_str());
    }

    bool Update(const std::vector<FixedValue> &values, std::string *error) override
    {
        Listen(); // before the reading
        const LSTATUS outcome = MakeState(values);
        if (outcome != ERROR_SUCCESS)
            *error = "the settings in HKEY_CURRENT_USER\\" + Narrow(root) +
                     " can't be written: " + SystemErrorText(static_cast<uint32_t>(outcome));
        return outcome == ERROR_SUCCESS;
    }

    void Follow(std::function<void()> handler) override
    {
        onChange = std::move(handler);
        Listen();
    }

private:
    std::wstring StatePath(uint32_t number) const { return root + L'\\' + std::to_wstring(number); }

    LSTATUS MakeState(const std::vector<FixedValue> &values)
    {
        OwnedKey copy;
        OwnedKey original;
        LSTATUS result = MakeVolatileKey(StatePath(state + 1), &copy);
        if (result != ERROR_SUCCESS)
            return result;
        if (RegOpenKeyExW(user.root, user.path.c_str(), 0, KEY_READ, original.Out()) == ERROR_SUCCESS)
            result = CopyValues(original.Get(), copy.Get());
        if (result != ERROR_SUCCESS)
            return result;
        // In the forms of RegistrySet, which knows how texts are kept.
        RegistryKeyObject object(copy.Release());
        for (const FixedValue &fixed : values) {
            const uint32_t error =
                fixed.type == kRegNone
                    ? RegistryDeleteValue(&object, fixed.name)
                    : RegistrySet(&object, fixed.name, fixed.type, false, fixed.bytes.data(),
                                  static_cast<uint32_t>(fixed.bytes.size()));
            if (error != kErrorSuccess && fixed.type != kRegNone)
                return static_cast<LSTATUS>(error);
        }
        SetEnvironment(kRedirectVariable, keyPath + '|' + Narrow(StatePath(state + 1)));
        Retire();
        return ERROR_SUCCESS;
    }

    // Watchers of the former state look again. Its readers may go on until the state after the next.
    void Retire()
    {
        OwnedKey old;
        if (state != 0 && RegOpenKeyExW(HKEY_CURRENT_USER, StatePath(state).c_str(), 0, KEY_SET_VALUE,
                                        old.Out()) == ERROR_SUCCESS) {
            const DWORD one = 1;
            RegSetValueExW(old.Get(), L"Superseded", 0, REG_DWORD, reinterpret_cast<const BYTE *>(&one),
                           sizeof(one));
        }
        if (state > 1)
            RegDeleteTreeW(HKEY_CURRENT_USER, StatePath(state - 1).c_str());
        ++state;
    }

    void Listen()
    {
        if (!onChange)
            return;
        watched.reset();
        std::wstring path = user.path;
        HKEY opened = nullptr;
        const uint32_t error = OpenNearestKey(&path, [&](const std::wstring &tried) {
            return static_cast<uint32_t>(RegOpenKeyExW(user.root, tried.c_str(), 0, KEY_READ, &opened));
        });
        if (error != kErrorSuccess)
            return;
        const bool found = path == user.path;
        watched = std::make_unique<RegistryKeyObject>(opened);
        const auto tell = [](void *self) { static_cast<WindowsPrivateStore *>(self)->onChange(); };
        static_cast<void>(watched->Notify(found, NearestKeyFilter(found), tell, this));
    }

    const std::string keyPath;
    const RegistryPlace user;
    const std::wstring root;
    uint32_t state = 0; // the number of the current one, 0 for none
    std::function<void()> onChange;
    std::unique_ptr<RegistryKeyObject> watched;
};

} // namespace

std::unique_ptr<PrivateStore> PrivateStore::Create(const std::string &, const std::string &keyPath,
                                                   const std::vector<FixedValue> &values, std::string *error)
{
    RegistryPlace user{};
    if (FindRegistryPlace(RegistryRoot::LocalMachine, keyPath, &user) != kErrorSuccess) {
        *error = SystemErrorText(kErrorInvalidParameter);
        return nullptr;
    }
    RemoveLeftOvers();
    auto store = std::make_unique<WindowsPrivateStore>(keyPath, user);
    if (!store->Update(values, error))
        return nullptr;
    return store;
}

} // namespace fodr::platform
