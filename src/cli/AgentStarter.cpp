#include "cli/AgentStarter.h"

#include "cli/PluginSettings.h"
#include "cli/Words.h"
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

constexpr int kConnectTimeoutMS = 10000;
constexpr unsigned kLingerSeconds = 24 * 60 * 60; // that the mount over there waits for us
constexpr char kLoopback[] = "127.0.0.1";

std::vector<std::string> AgentWords(const ShareOptions &options, const std::string &program,
                                    const std::string &mountPoint)
{
    std::vector<std::string> words = {program, "agent", "--stdio", "--layout",
                                      options.folderLayout ? "folders" : "single"};
    if (options.readOnly)
        words.push_back("--read-only");
    if (!options.sideChannel.empty())
        words.insert(words.end(), {"--side-channel", options.sideChannel});
    if (options.target.kind != AgentTarget::Kind::Local && options.reconnect)
        words.insert(words.end(), {"--linger", std::to_string(kLingerSeconds)});
    if (options.ioTimeoutSeconds)
        words.insert(words.end(), {"--io-timeout", std::to_string(*options.ioTimeoutSeconds)});
    words.insert(words.end(), options.agentWords.begin(), options.agentWords.end());
    words.insert(words.end(), {"--", mountPoint});
    return words;
}

} // namespace

bool AgentStarter::Prepare(std::string *error)
{
    if (options->target.kind != AgentTarget::Kind::Listen)
        return true;
    const std::string address = options->target.host.empty() ? kLoopback : options->target.host;
    auto listener = platform::ListenTcp(address, options->target.port, error);
    if (listener)
        door = std::make_unique<host::AgentDoor>(std::move(listener), options->token, onTurnedAway);
    return door != nullptr;
}

void AgentStarter::Cancel()
{
    if (door)
        door->Shutdown();
}

AgentConnection AgentStarter::Connect(const std::string &mountPoint)
{
    AgentConnection connection;
    switch (options->target.kind) {
    case AgentTarget::Kind::Local:
    case AgentTarget::Kind::Ssh:
        return StartProcess(*AgentProcess(*options, mountPoint));
    case AgentTarget::Kind::Connect:
        connection.stream = platform::ConnectTcp(options->target.host, options->target.port,
                                                 kConnectTimeoutMS, &connection.error);
        break;
    case AgentTarget::Kind::Listen:
        connection.stream = door->Await();
        connection.error = connection.stream ? "" : "nobody connected";
        break;
    }
    return connection;
}

std::optional<platform::ChildOptions> AgentStarter::AgentProcess(const ShareOptions &options,
                                                                 const std::string &mountPoint)
{
    platform::ChildOptions child;
    if (options.target.kind == AgentTarget::Kind::Local) {
        child.arguments = AgentWords(options, options.ownProgram, mountPoint);
        child.interrupts = platform::ChildOptions::Interrupts::Own;
    } else if (options.target.kind == AgentTarget::Kind::Ssh) {
        child.arguments = options.sshWords;
        child.arguments.insert(child.arguments.end(), {"-T", options.target.host, "--"});
        // The other side's shell takes it apart again.
        child.arguments.push_back(JoinForShell(AgentWords(options, options.remoteProgram, mountPoint)));
        // In our group, so that it may ask for a password; ssh keeps ignoring an ignored Ctrl-C.
        child.interrupts = platform::ChildOptions::Interrupts::Ignored;
    } else {
        return std::nullopt;
    }
    return child;
}

AgentConnection AgentStarter::StartProcess(platform::ChildOptions child)
{
    AgentConnection connection;
    child.withStream = true;
    child.onErrorLine = onErrorLine;
    connection.process = confinement->Start(child, &connection.error);
    if (connection.process)
        connection.stream = connection.process->TakeStream();
    else
        connection.error = child.arguments.front() + " can't be started: " + connection.error;
    return connection;
}

namespace {

constexpr int kDetachLimitMS = 10000;

std::string LogFolderSetting()
{
    const auto value = platform::SettingsKey().Read("logDirectory");
    return value ? std::string(value->bytes.c_str()) : std::string();
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
    for (const WantedFolder &shared : options.folders) {
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
