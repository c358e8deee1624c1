// The commands on the plug-in's key of the settings store, and where the plug-in is.
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/PluginSettings.h"
#include "host/PluginHost.h"
#include "host/PrivateSettings.h"
#include "platform/Files.h"
#include "platform/Process.h"
#include "platform/SettingsKey.h"
#include "platform/SystemError.h"
#include "platform/Threads.h"

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>

namespace fodr::cli {

// `fodr config`: the plug-in's key of the settings store.

namespace fs = std::filesystem;

namespace {

using platform::SettingsKey;
using Values = std::map<std::string, SettingValue>;

SettingsKey Open(const std::string &path = platform::kPluginSettingsKey,
                 SettingsKey::Access access = SettingsKey::Access::Read)
{
    ComplainAboutStore();
    return SettingsKey(path, access);
}

Values ReadAll(const SettingsKey &key)
{
    Values values;
    std::vector<std::string> names;
    if (key.Result() == platform::kErrorSuccess)
        platform::RegistryListValues(key.Get(), &names);
    for (const std::string &name : names) {
        if (const auto value = key.Read(name))
            values[name] = *value;
    }
    return values;
}

int CannotWrite(uint32_t code)
{
    const std::string what = "the settings in " + platform::SettingsFolder() + " can't be written: ";
    Complain(what +
             (code == platform::kErrorInvalidData
                  ? "mend or remove the file first"
                  : Plain(platform::SystemErrorText(code)) + ": FODR_SETTINGS_DIR can name another folder"));
    return EXIT_OTHER;
}

std::string Line(const std::string &name, const SettingValue &value)
{
    std::string line = name + " =";
    for (const std::string &text : PrintSetting(value))
        line += " " + (value.type == platform::kRegMultiSz ? "\"" + text + "\"" : text);
    return line;
}

// A store that can't be read counts as empty.
std::unique_ptr<SettingsKey> OpenNearest(std::string *path)
{
    *path = platform::kPluginSettingsKey;
    std::unique_ptr<SettingsKey> key;
    platform::OpenNearestKey(path, [&key](const std::string &tried) {
        key = std::make_unique<SettingsKey>(tried);
        const uint32_t result = key->Result();
        return result == platform::kErrorInvalidData ? platform::kErrorFileNotFound : result;
    });
    return key;
}

// Sets the event at the next change of the key or, as long as there is none, when one comes. `*key` is what
// is watched.
uint32_t Watch(platform::Waitable changed, std::unique_ptr<SettingsKey> *key)
{
    for (;;) {
        std::string path;
        *key = OpenNearest(&path);
        if ((*key)->Result() != platform::kErrorSuccess)
            return (*key)->Result();
        const bool isKey = path == platform::kPluginSettingsKey;
        const uint32_t result =
            platform::RegistryNotify((*key)->Get(), false, platform::NearestKeyFilter(isKey),
                                     [](void *event) { platform::SetEventObject(event); }, changed);
        std::string now;
        OpenNearest(&now);
        if (result != platform::kErrorSuccess || now == path)
            return result;
        // No notification covers a nearer key that was created between opening and watching.
    }
}

void PrintChanges(const Values &before, const Values &now, const std::string &name)
{
    const auto isMeant = [&](const std::string &changed) {
        const KnownSetting *known = FindKnownSetting(changed);
        return name.empty() || changed == name || (known != nullptr && known == FindKnownSetting(name));
    };
    for (const auto &[changed, value] : now) {
        const auto old = before.find(changed);
        const bool same =
            old != before.end() && old->second.type == value.type && old->second.bytes == value.bytes;
        if (!same && isMeant(changed))
            Say(Line(changed, value));
    }
    for (const auto &[gone, value] : before) {
        if (!now.contains(gone) && isMeant(gone))
            Say(gone + " isn't set");
    }
}

} // namespace

int RunConfigGet(const std::string &name)
{
    const auto value = Open().Read(name);
    if (!value)
        return EXIT_OTHER;
    for (const std::string &text : PrintSetting(*value))
        Say(text);
    return EXIT_DONE;
}

int RunConfigSet(const std::string &name, const std::vector<std::string> &values, const std::string &type)
{
    const KnownSetting *known = FindKnownSetting(name);
    const auto named = platform::SettingTypeOf(type);
    if (!type.empty() && (!named || platform::SettingTypeName(*named) != type)) {
        Complain("there is no type \"" + type + "\": see fodr config set --help");
        return EXIT_USAGE;
    }
    if (!named && known == nullptr) {
        Complain("there is no setting \"" + name +
                 "\": see fodr config list --all, or name its --type if it is meant");
        return EXIT_USAGE;
    }
    std::string expected;
    const auto value = ParseSetting(named.value_or(known != nullptr ? known->type : 0), values, &expected);
    if (!value || (known != nullptr && !IsWordOf(*known, *value, &expected))) {
        Complain(name + " wants " + expected);
        return EXIT_USAGE;
    }
    if (const std::string made = platform::MakeSettingsFolder(); !made.empty())
        Complain("your settings are in " + made + " from now on");
    const SettingsKey key = Open(platform::kPluginSettingsKey, SettingsKey::Access::Write);
    uint32_t result = key.Result();
    if (result == platform::kErrorSuccess)
        result = platform::RegistrySet(key.Get(), known != nullptr ? known->name : name, value->type, false,
                                       value->bytes.data(), static_cast<uint32_t>(value->bytes.size()));
    return result == platform::kErrorSuccess ? EXIT_DONE : CannotWrite(result);
}

int RunConfigUnset(const std::string &name)
{
    const SettingsKey key = Open();
    uint32_t result = key.Result();
    if (result == platform::kErrorSuccess)
        result = platform::RegistryDeleteValue(key.Get(), name);
    return result == platform::kErrorSuccess || result == platform::kErrorFileNotFound ? EXIT_DONE
                                                                                       : CannotWrite(result);
}

int RunConfigList(bool all)
{
    const SettingsKey key = Open();
    if (key.Result() == platform::kErrorInvalidData)
        return EXIT_OTHER; // which has been said
    for (const auto &[name, value] : ReadAll(key))
        Say(Line(name, value));
    if (!all)
        return EXIT_DONE;
    for (const KnownSetting &setting : KnownSettings()) {
        SettingValue ignored;
        if (key.Query(setting.name, &ignored) == platform::kErrorFileNotFound)
            Say(std::string(setting.name) + " isn't set: " + setting.standard + " (" +
                std::string(platform::SettingTypeName(setting.type)) + (*setting.live ? ", " : "") +
                setting.live + ")");
    }
    return EXIT_DONE;
}

int RunConfigWatch(const std::string &name)
{
    const platform::Waitable changed = platform::CreateEventObject(false, false, nullptr);
    static std::atomic<bool> ended{false};
    platform::WatchTermination([changed](platform::TerminationRequest) {
        ended = true;
        platform::SetEventObject(changed);
    });
    Values known = ReadAll(Open());
    while (!ended) {
        std::unique_ptr<SettingsKey> key;
        if (const uint32_t result = Watch(changed, &key); result != platform::kErrorSuccess) {
            Complain("the settings can't be watched: " + Plain(platform::SystemErrorText(result)));
            return EXIT_OTHER;
        }
        const Values now = ReadAll(Open()); // a change before the watching counts too
        PrintChanges(known, now, name);
        known = now;
        platform::WaitForWaitables(&changed, 1, platform::kWaitForever);
    }
    return EXIT_DONE; // the event stays for the thread that takes signals
}

// `fodr register` and `fodr unregister`: the plug-in does it itself.

int RunRegister(bool registering)
{
    std::string problem;
    const std::string path = FindPlugin(&problem);
    if (path.empty()) {
        Complain(problem);
        return EXIT_NO_PLUGIN;
    }
    const auto plugin = host::PluginLibrary::Load(path, &problem);
    if (!plugin) {
        Complain("the plug-in " + path + " can't be used: " + problem);
        return EXIT_NO_PLUGIN;
    }
    if (registering)
        platform::MakeSettingsFolder();
    const int32_t result = registering ? plugin->RegisterServer() : plugin->UnregisterServer();
    // The plug-in takes a path that it can't enter for no failure.
    if (result == 0 && registering && !SettingsKey().Read("dll")) {
        Complain("nothing was registered: the path of the plug-in, " + path + ", may be too long");
        return EXIT_OTHER;
    }
    if (result == 0)
        return EXIT_DONE;
    char code[16];
    std::snprintf(code, sizeof(code), "0x%08x", static_cast<uint32_t>(result));
    Complain(std::string("the settings store can't be written (") + code + "): see FODR_SETTINGS_DIR");
    return EXIT_OTHER;
}

std::string OwnProgram()
{
    return platform::ModulePath(nullptr);
}

std::string FindPlugin(std::string *problem)
{
    std::error_code error;
    const std::string chosen = platform::GetEnvironment("FODR_PLUGIN");
    if (!chosen.empty()) {
        if (fs::is_regular_file(chosen, error))
            return chosen;
        *problem = "there is no plug-in at \"" + chosen + "\", which FODR_PLUGIN names: correct or unset it";
        return {};
    }
    const fs::path here = fs::path(OwnProgram()).parent_path();
    const std::string name = platform::LibraryFileName("fodrClient");
    for (const fs::path &path : {here.parent_path() / "lib" / name, here / name}) {
        if (fs::is_regular_file(path, error))
            return path.string();
    }
    *problem = "the plug-in " + name + " is not in " + (here.parent_path() / "lib").string() +
               ": install it there or name it with FODR_PLUGIN";
    return {};
}

} // namespace fodr::cli
