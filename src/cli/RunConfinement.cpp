#include "cli/RunConfinement.h"

#include "cli/AgentStarter.h"
#include "cli/PluginSettings.h"
#include "host/PrivateSettings.h"
#include "platform/Confinement.h"
#include "platform/Files.h"
#include "platform/Process.h"
#include "platform/Registry.h"
#include "platform/SystemError.h"
#include "platform/Volumes.h"

#include <filesystem>

namespace fodr::cli {
namespace {

constexpr int kDetachLimitMS = 10000;

std::string LogFolderSetting()
{
    platform::RegistryKey key = nullptr;
    if (platform::RegistryOpen(platform::RegistryRoot::LocalMachine, platform::kPluginSettingsKey,
                               platform::kRegKeyRead, &key) != platform::kErrorSuccess)
        return {};
    std::string text(4096, '\0');
    auto size = static_cast<uint32_t>(text.size());
    const uint32_t result = platform::RegistryQuery(key, "logDirectory", false, nullptr, text.data(), &size);
    platform::RegistryClose(key);
    return result == platform::kErrorSuccess ? std::string(text.c_str()) : std::string();
}

// Wherever the plug-in may put its log (docs/logging.md). It makes a missing folder itself, which it can't
// later.
std::vector<std::string> LogFolders()
{
    const std::string user = platform::EnvironmentUserName();
    std::vector<std::string> folders = {platform::TemporaryFolder() + "orvane-" +
                                            (user.empty() ? "default" : user),
                                        platform::ServiceLogFolder()};
    if (const std::string set = LogFolderSetting(); !set.empty())
        folders.push_back(set);
    for (const std::string &folder : folders) {
        if (folder != platform::ServiceLogFolder())
            platform::CreateFolder(folder);
    }
    return folders;
}

platform::ChildOptions Detaching(const std::string &path)
{
    platform::ChildOptions child;
    child.arguments = platform::UnmountCommand(path, true);
    child.onErrorLine = [](const std::string &) {};
    return child;
}

std::vector<platform::ChildOptions> Planned(const ShareOptions &options, const MountFolder *mountPoint)
{
    std::vector<platform::ChildOptions> planned;
    if (auto agent =
            AgentStarter::AgentProcess(options, mountPoint ? mountPoint->Path() : options.target.mountPoint))
        planned.push_back(std::move(*agent));
    if (!options.command.empty()) {
        planned.emplace_back().arguments = options.command;
        planned.back().environment = {{"FODR_MOUNT", ""}};
    }
    if (mountPoint)
        planned.push_back(Detaching(mountPoint->Path()));
    return planned;
}

platform::ConfinementRules RulesFor(const ShareOptions &options, const MountFolder *mountPoint)
{
    platform::ConfinementRules rules{LogFolders(), {}};
    rules.writable.push_back(platform::RuntimeFolder());
    rules.writable.emplace_back("/dev/null");
    for (const SharedFolder &shared : options.folders) {
        if (!options.readOnly)
            rules.writable.push_back(shared.path);
    }
    if (mountPoint && mountPoint->IsMadeHere())
        rules.tidied.push_back(std::filesystem::path(mountPoint->Path()).parent_path().string());
    return rules;
}

} // namespace

RunConfinement RunConfinement::Of(const ShareOptions &options, const MountFolder *mountPoint)
{
    RunConfinement made;
    std::string problem;
    if (!options.fixed) {
        made.state = "no: folders can be added, see --fixed";
        return made;
    }
    if (options.plugin.linksOutside && !options.readOnly) {
        made.state = "no: --links-outside lets writes go anywhere";
        return made;
    }
    made.launcher = platform::ChildLauncher::Create(Planned(options, mountPoint), &problem);
    if (!made.launcher) {
        made.state = "no: " + problem;
        return made;
    }
    const platform::Confinement done = platform::ConfineProcess(RulesFor(options, mountPoint));
    if (!done.privileges)
        made.launcher.reset();
    made.state = done.files        ? "yes"
                 : done.privileges ? "partly: no new privileges, but " + done.problem
                                   : "no: " + done.problem;
    return made;
}

std::unique_ptr<platform::ChildProcess> RunConfinement::Start(const platform::ChildOptions &child,
                                                              std::string *error) const
{
    return launcher ? launcher->Start(child, error) : platform::ChildProcess::Start(child, error);
}

bool RunConfinement::DetachMount(const std::string &path) const
{
    if (!launcher)
        return platform::DetachMount(path);
    std::string ignored;
    if (const auto helper = launcher->Start(Detaching(path), &ignored))
        helper->Wait(kDetachLimitMS);
    return platform::InspectMount(path) == platform::MountHealth::None;
}

} // namespace fodr::cli
