#include "SettingsFixture.h"

#include "platform/windows/Win32.h"

#include <atomic>
#include <filesystem>

namespace fodr::test {

namespace {

constexpr wchar_t kVariable[] = L"FODR_SETTINGS_KEY";
constexpr wchar_t kPlugin[] = L"\\SOFTWARE\\Orvane, Inc.\\Orvane ODPService\\Plugins\\fodr";

std::wstring Wide(const std::string &text)
{
    return std::filesystem::path(text).wstring(); // the one conversion from UTF-8 that the library has
}

} // namespace

SettingsFixture::SettingsFixture()
{
    static std::atomic<int> made{0};
    const std::wstring own = std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++made);
    store = L"Software\\fodr\\Tests\\" + own;
    const std::filesystem::path scratch = std::filesystem::temp_directory_path() / (L"fodr-settings-" + own);
    // What a killed process of this number left: numbers are used again.
    std::error_code ignored;
    std::filesystem::remove_all(scratch, ignored);
    RegDeleteTreeW(HKEY_CURRENT_USER, store.c_str());
    std::filesystem::create_directories(scratch);
    folder = scratch.string();
    HKEY key = nullptr;
    RegCreateKeyExW(HKEY_CURRENT_USER, store.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr);
    RegCloseKey(key);
    SetEnvironmentVariableW(kVariable, (L"|" + store).c_str());
}

SettingsFixture::~SettingsFixture()
{
    SetEnvironmentVariableW(kVariable, nullptr);
    RegDeleteTreeW(HKEY_CURRENT_USER, store.c_str());
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

void SettingsFixture::SetText(const std::string &name, const std::string &value)
{
    Set(name, REG_SZ, Wide(value) + L'\0');
}

void SettingsFixture::SetNumber(const std::string &name, uint32_t value)
{
    Set(name, REG_DWORD, std::wstring(reinterpret_cast<const wchar_t *>(&value), sizeof(value) / 2));
}

void SettingsFixture::SetList(const std::string &name, const std::vector<std::string> &values)
{
    std::wstring list;
    for (const std::string &value : values)
        list += Wide(value) + L'\0';
    Set(name, REG_MULTI_SZ, list + L'\0');
}

void SettingsFixture::CreateKey()
{
    HKEY key = nullptr;
    RegCreateKeyExW(HKEY_CURRENT_USER, (store + kPlugin).c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                    &key, nullptr);
    RegCloseKey(key);
}

void SettingsFixture::Set(const std::string &name, uint32_t type, const std::wstring &text)
{
    RegSetKeyValueW(HKEY_CURRENT_USER, (store + kPlugin).c_str(), Wide(name).c_str(), type, text.data(),
                    static_cast<DWORD>(text.size() * sizeof(wchar_t)));
}

} // namespace fodr::test
