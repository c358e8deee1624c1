#include "cli/AgentStarter.h"

#include "cli/Words.h"

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

} // namespace fodr::cli
