#include "host/PrivateSettings.h"

#include "platform/Registry.h"

namespace fodr::host {
namespace {

// All of them each time: a missing key would mean that every drive is shared.
std::vector<platform::PrivateStore::FixedValue> Fixed(const std::vector<std::string> &folders, PluginLog log)
{
    std::string list;
    for (const std::string &folder : folders)
        list += folder + '\0';
    list += '\0';
    std::vector<platform::PrivateStore::FixedValue> values = {
        {"AllowedFolders", platform::kRegMultiSz, list},
        {"RedirectAll", platform::kRegDword, std::string(4, '\0')},
        {"SharedFolders", platform::kRegNone, ""}};
    if (log == PluginLog::Trace) {
        values.push_back({"logLevel", platform::kRegSz, std::string("TRACE") + '\0'});
        values.push_back({"logToStderr", platform::kRegSz, std::string("true") + '\0'});
    }
    return values;
}

} // namespace

std::unique_ptr<PrivateSettings> PrivateSettings::Create(const std::string &folder, std::string *error,
                                                         PluginLog log)
{
    std::unique_ptr<PrivateSettings> settings(new PrivateSettings(log));
    settings->store = platform::PrivateStore::Create(folder, kPluginSettingsKey, Fixed({}, log), error);
    return settings->store ? std::move(settings) : nullptr;
}

bool PrivateSettings::Allow(const std::vector<std::string> &folders, std::string *error)
{
    if (!store->Update(Fixed(folders, log), error))
        return false;
    allowed = folders;
    return true;
}

bool PrivateSettings::Refresh(std::string *error)
{
    return store->Update(Fixed(allowed, log), error);
}

} // namespace fodr::host
