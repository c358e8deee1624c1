#include "host/PrivateSettings.h"

#include "platform/Registry.h"

namespace fodr::host {
namespace {

// All of them each time: a missing key would mean that every drive is shared.
std::vector<platform::PrivateStore::FixedValue> Fixed(const std::vector<std::string> &folders,
                                                      const PluginWishes &wishes)
{
    const auto number = [](uint32_t value) { return std::string{static_cast<char>(value), 0, 0, 0}; };
    std::string list;
    for (const std::string &folder : folders)
        list += folder + '\0';
    list += '\0';
    std::vector<platform::PrivateStore::FixedValue> values = {
        {"AllowedFolders", platform::kRegMultiSz, list},
        {"RedirectAll", platform::kRegDword, number(0)},
        {"SharedFolders", platform::kRegNone, ""},
        {"caseSensitivity", platform::kRegDword, number(static_cast<uint32_t>(wishes.nameCase))},
        {"linksOutside", platform::kRegDword, number(wishes.linksOutside)},
        {"readOnlyShares", platform::kRegDword, number(wishes.readOnly)}};
    if (wishes.log == PluginLog::Trace) {
        values.push_back({"logLevel", platform::kRegSz, std::string("TRACE") + '\0'});
        values.push_back({"logToStderr", platform::kRegSz, std::string("true") + '\0'});
    }
    return values;
}

} // namespace

std::unique_ptr<PrivateSettings> PrivateSettings::Create(const std::string &folder, std::string *error,
                                                         const PluginWishes &wishes)
{
    std::unique_ptr<PrivateSettings> settings(new PrivateSettings(wishes));
    settings->store =
        platform::PrivateStore::Create(folder, platform::kPluginSettingsKey, Fixed({}, wishes), error);
    return settings->store ? std::move(settings) : nullptr;
}

bool PrivateSettings::Allow(const std::vector<std::string> &folders, std::string *error)
{
    if (!store->Update(Fixed(folders, wishes), error))
        return false;
    allowed = folders;
    return true;
}

bool PrivateSettings::Refresh(std::string *error)
{
    return store->Update(Fixed(allowed, wishes), error);
}

} // namespace fodr::host
