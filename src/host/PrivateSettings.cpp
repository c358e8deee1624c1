#include "host/PrivateSettings.h"

#include "platform/Registry.h"
#include "platform/SystemError.h"
#include "platform/UserFolders.h"

#include <filesystem>

namespace fodr::host {
namespace {

namespace fs = std::filesystem;

constexpr char kKey[] = "SOFTWARE\\Orvane, Inc.\\Orvane ODPService\\Plugins\\fodr";
constexpr char kMachineFile[] = "HKEY_LOCAL_MACHINE.ini";
constexpr char kUserFile[] = "HKEY_CURRENT_USER.ini";

class OpenKey {
public:
    OpenKey()
    {
        result = platform::RegistryCreate(platform::RegistryRoot::LocalMachine, kKey,
                                          platform::kRegKeyAllAccess, &key);
    }
    ~OpenKey()
    {
        if (result == 0)
            platform::RegistryClose(key);
    }
    OpenKey(const OpenKey &) = delete;
    OpenKey &operator=(const OpenKey &) = delete;

    void Set(const char *name, uint32_t type, const void *data, size_t size)
    {
        if (result == 0)
            problem = platform::RegistrySet(key, name, type, false, data, static_cast<uint32_t>(size));
    }
    void Delete(const char *name)
    {
        if (result == 0)
            platform::RegistryDeleteValue(key, name); // it needn't be there
    }
    bool Good() const { return result == 0 && problem == 0; }

private:
    platform::RegistryKey key = nullptr;
    uint32_t result = 0;
    uint32_t problem = 0; // of the last Set
};

std::string ListBytes(const std::vector<std::string> &texts)
{
    std::string bytes;
    for (const std::string &text : texts)
        bytes += text + '\0';
    return bytes + '\0';
}

} // namespace

std::unique_ptr<PrivateSettings> PrivateSettings::Create(const std::string &folder, std::string *error)
{
    const fs::path source = platform::SettingsFolder();
    if (!platform::CreatePrivateFolder(folder, error))
        return nullptr;
    std::unique_ptr<PrivateSettings> settings(new PrivateSettings(folder));
    for (const char *file : {kMachineFile, kUserFile}) {
        std::error_code ignored;
        fs::copy_file(source / file, fs::path(folder) / file, fs::copy_options::overwrite_existing, ignored);
        fs::permissions(fs::path(folder) / file, fs::perms::owner_read | fs::perms::owner_write, ignored);
    }
    platform::SetEnvironment("FODR_SETTINGS_DIR", folder);
    if (settings->Write({}, error))
        return settings;
    // A store that isn't well-formed is never written to; this is our copy of it.
    std::error_code ignored;
    fs::remove(fs::path(folder) / kMachineFile, ignored);
    return settings->Write({}, error) ? std::move(settings) : nullptr;
}

PrivateSettings::~PrivateSettings()
{
    std::error_code ignored;
    fs::remove_all(folder, ignored);
}

bool PrivateSettings::Allow(const std::vector<std::string> &folders, std::string *error)
{
    return Write(folders, error);
}

// Everything each time: a missing key would mean that every drive is shared.
bool PrivateSettings::Write(const std::vector<std::string> &folders, std::string *error)
{
    OpenKey key;
    const uint32_t none = 0;
    const std::string allowed = ListBytes(folders);
    key.Set("AllowedFolders", platform::kRegMultiSz, allowed.data(), allowed.size());
    const bool allowedSet = key.Good();
    key.Set("RedirectAll", platform::kRegDword, &none, sizeof(none));
    key.Delete("SharedFolders");
    if (!allowedSet || !key.Good())
        *error = "the settings in " + folder + " can't be written";
    return allowedSet && key.Good();
}

} // namespace fodr::host
