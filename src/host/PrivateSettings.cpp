#include "host/PrivateSettings.h"

#include "platform/Registry.h"

namespace fodr::host {
namespace {

constexpr char kKey[] = "SOFTWARE\\Orvane, Inc.\\Orvane ODPService\\Plugins\\fodr";

// All of them each time: a missing key would mean that every drive is shared.
std::vector<platform::PrivateStore::FixedValue> Fixed(const std::vector<std::string> &folders)
{
    std::string list;
    for (const std::string &folder : folders)
        list += folder + '\0';
    list += '\0';
    return {{"AllowedFolders", platform::kRegMultiSz, list},
            {"RedirectAll", platform::kRegDword, std::string(4, '\0')},
            {"SharedFolders", platform::kRegNone, ""}};
}

} // namespace

std::unique_ptr<PrivateSettings> PrivateSettings::Create(const std::string &folder, std::string *error)
{
    std::unique_ptr<PrivateSettings> settings(new PrivateSettings);
    settings->store = platform::PrivateStore::Create(folder, kKey, Fixed({}), error);
    return settings->store ? std::move(settings) : nullptr;
}

bool PrivateSettings::Allow(const std::vector<std::string> &folders, std::string *error)
{
    if (!store->Update(Fixed(folders), error))
        return false;
    allowed = folders;
    return true;
}

bool PrivateSettings::Refresh(std::string *error)
{
    return store->Update(Fixed(allowed), error);
}

} // namespace fodr::host
