// The settings store is the registry itself.
#include "platform/Registry.h"

#include "lib/unicode/CodeSet.h"
#include "platform/SystemError.h"
#include "platform/windows/RegistryKeyObject.h"
#include "platform/windows/Win32.h"

#include <cstring>
#include <memory>
#include <new>

namespace fodr::platform {

namespace {

constexpr DWORD kLongestValueName = 16383; // units

bool IsText(DWORD type)
{
    return type == REG_SZ || type == REG_EXPAND_SZ || type == REG_MULTI_SZ;
}

RegistryKeyObject *ObjectOf(RegistryKey key)
{
    return static_cast<RegistryKeyObject *>(key);
}

uint32_t GiveKey(HKEY opened, RegistryKey *key)
{
    *key = new (std::nothrow) RegistryKeyObject(opened);
    if (*key)
        return kErrorSuccess;
    RegCloseKey(opened);
    return kErrorNotEnoughMemory;
}

// The bytes as the store holds them. Another writer may make the value longer between the two questions.
uint32_t ReadBytes(HKEY key, const std::wstring &name, DWORD *type, std::string *bytes)
{
    DWORD size = 0;
    LSTATUS result = RegQueryValueExW(key, name.c_str(), nullptr, type, nullptr, &size);
    while (result == ERROR_SUCCESS || result == ERROR_MORE_DATA) {
        bytes->resize(size);
        result = RegQueryValueExW(key, name.c_str(), nullptr, type, reinterpret_cast<BYTE *>(bytes->data()),
                                  &size);
        if (result == ERROR_SUCCESS) {
            bytes->resize(size);
            break;
        }
    }
    return static_cast<uint32_t>(result);
}

std::string NarrowBytes(const std::string &bytes)
{
    std::wstring wide(bytes.size() / sizeof(wchar_t), L'\0');
    std::memcpy(wide.data(), bytes.data(), wide.size() * sizeof(wchar_t));
    return Narrow(wide);
}

} // namespace

uint32_t RegistryOpen(RegistryRoot root, const std::string &path, uint32_t access, RegistryKey *key)
{
    RegistryPlace place{};
    if (const uint32_t error = FindRegistryPlace(root, path, &place))
        return error;
    HKEY opened = nullptr;
    const LSTATUS result = RegOpenKeyExW(place.root, place.path.c_str(), 0, access, &opened);
    return result == ERROR_SUCCESS ? GiveKey(opened, key) : static_cast<uint32_t>(result);
}

uint32_t RegistryCreate(RegistryRoot root, const std::string &path, uint32_t access, RegistryKey *key)
{
    RegistryPlace place{};
    if (const uint32_t error = FindRegistryPlace(root, path, &place))
        return error;
    HKEY opened = nullptr;
    const LSTATUS result =
        RegCreateKeyExW(place.root, place.path.c_str(), 0, nullptr, 0, access, nullptr, &opened, nullptr);
    return result == ERROR_SUCCESS ? GiveKey(opened, key) : static_cast<uint32_t>(result);
}

uint32_t RegistryQuery(RegistryKey key, const std::string &name, bool wide, uint32_t *type, void *data,
                       uint32_t *size)
{
    std::wstring wideName;
    std::string bytes;
    DWORD valueType = 0;
    if (!key)
        return kErrorInvalidHandle;
    if (!Widen(name, wideName))
        return kErrorInvalidParameter;
    if (const uint32_t error = ReadBytes(ObjectOf(key)->Get(), wideName, &valueType, &bytes))
        return error;
    if (!wide && IsText(valueType))
        bytes = NarrowBytes(bytes);
    if (type)
        *type = valueType;
    const uint32_t room = *size;
    *size = static_cast<uint32_t>(bytes.size());
    if (!data)
        return kErrorSuccess;
    if (room < bytes.size())
        return kErrorMoreData;
    std::memcpy(data, bytes.data(), bytes.size());
    return kErrorSuccess;
}

uint32_t RegistrySet(RegistryKey key, const std::string &name, uint32_t type, bool wide, const void *data,
                     uint32_t size)
{
    std::wstring wideName;
    std::u16string converted;
    if (!key)
        return kErrorInvalidHandle;
    if (!Widen(name, wideName))
        return kErrorInvalidParameter;
    if (!wide && IsText(type)) {
        if (!Utf8ToUtf16({static_cast<const char *>(data), size}, converted))
            return kErrorInvalidParameter;
        data = converted.data();
        size = static_cast<uint32_t>(converted.size() * sizeof(char16_t));
    }
    return static_cast<uint32_t>(RegSetValueExW(ObjectOf(key)->Get(), wideName.c_str(), 0, type,
                                                static_cast<const BYTE *>(data), size));
}

uint32_t RegistryListValues(RegistryKey key, std::vector<std::string> *names)
{
    names->clear();
    if (!key)
        return kErrorInvalidHandle;
    std::wstring name(kLongestValueName + 1, L'\0');
    for (DWORD index = 0;; ++index) {
        auto length = static_cast<DWORD>(name.size());
        const LSTATUS result = RegEnumValueW(ObjectOf(key)->Get(), index, name.data(), &length, nullptr,
                                             nullptr, nullptr, nullptr);
        if (result == ERROR_NO_MORE_ITEMS)
            return kErrorSuccess;
        if (result != ERROR_SUCCESS)
            return static_cast<uint32_t>(result);
        names->push_back(Narrow(std::wstring_view(name.data(), length)));
    }
}

uint32_t RegistryDeleteValue(RegistryKey key, const std::string &name)
{
    std::wstring wideName;
    if (!key)
        return kErrorInvalidHandle;
    if (!Widen(name, wideName))
        return kErrorInvalidParameter;
    return static_cast<uint32_t>(RegDeleteValueW(ObjectOf(key)->Get(), wideName.c_str()));
}

uint32_t RegistryDelete(RegistryKey key, const std::string &path)
{
    std::wstring widePath;
    if (!key)
        return kErrorInvalidHandle;
    if (path.empty() || !Widen(path, widePath))
        return kErrorInvalidParameter;
    return static_cast<uint32_t>(RegDeleteKeyW(ObjectOf(key)->Get(), widePath.c_str()));
}

uint32_t RegistryClose(RegistryKey key)
{
    if (!key)
        return kErrorInvalidHandle;
    const std::unique_ptr<RegistryKeyObject> object(ObjectOf(key));
    return object->Close();
}

void SetRegistryComplaintHandler(RegistryComplaintHandler) {}

uint32_t RegistryNotify(RegistryKey key, bool watchSubtree, uint32_t filter, RegistryChangeHandler handler,
                        void *context)
{
    if (!key)
        return kErrorInvalidHandle;
    if (!handler || (filter & (kRegNotifyChangeName | kRegNotifyChangeLastSet)) == 0)
        return kErrorInvalidParameter;
    return ObjectOf(key)->Notify(watchSubtree, filter, handler, context);
}

} // namespace fodr::platform
