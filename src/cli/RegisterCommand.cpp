// `fodr register` and `fodr unregister`: the plug-in does it itself.
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/ExitCode.h"
#include "cli/PluginPath.h"
#include "host/PluginLibrary.h"
#include "host/PrivateSettings.h"
#include "platform/Files.h"
#include "platform/Registry.h"
#include "platform/SystemError.h"

#include <cstdio>

namespace fodr::cli {
namespace {

// The plug-in takes a path that it can't enter for no failure.
bool IsRegistered()
{
    platform::RegistryKey key = nullptr;
    if (platform::RegistryOpen(platform::RegistryRoot::LocalMachine, host::kPluginSettingsKey,
                               platform::kRegKeyRead, &key) != platform::kErrorSuccess)
        return false;
    uint32_t size = 0;
    const uint32_t found = platform::RegistryQuery(key, "dll", true, nullptr, nullptr, &size);
    platform::RegistryClose(key);
    return found == platform::kErrorSuccess;
}

} // namespace

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
    if (result == 0 && registering && !IsRegistered()) {
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

} // namespace fodr::cli
