#include "cli/AgentStarter.h"

#include "cli/Words.h"

namespace fodr::cli {
namespace {

constexpr int kConnectTimeoutMS = 10000;
constexpr unsigned kLingerSeconds = 24 * 60 * 60; // that the mount over there waits for us
constexpr char kLoopback[] = "127.0.0.1";

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

std::vector<std::string> AgentStarter::AgentWords(const std::string &program,
                                                  const std::string &mountPoint) const
{
    std::vector<std::string> words = {program, "agent", "--stdio", "--layout",
                                      options->folderLayout ? "folders" : "single"};
    if (options->readOnly)
        words.push_back("--read-only");
    if (!options->sideChannel.empty())
        words.insert(words.end(), {"--side-channel", options->sideChannel});
    if (options->target.kind != AgentTarget::Kind::Local && options->reconnect)
        words.insert(words.end(), {"--linger", std::to_string(kLingerSeconds)});
    if (options->ioTimeoutSeconds)
        words.insert(words.end(), {"--io-timeout", std::to_string(*options->ioTimeoutSeconds)});
    words.insert(words.end(), options->agentWords.begin(), options->agentWords.end());
    words.insert(words.end(), {"--", mountPoint});
    return words;
}

AgentConnection AgentStarter::Connect(const std::string &mountPoint)
{
    AgentConnection connection;
    switch (options->target.kind) {
    case AgentTarget::Kind::Local:
        return StartProcess(AgentWords(options->ownProgram, mountPoint),
                            platform::ChildOptions::Interrupts::Own);
    case AgentTarget::Kind::Ssh: {
        std::vector<std::string> words = options->sshWords;
        words.insert(words.end(), {"-T", options->target.host, "--"});
        // The other side's shell takes it apart again.
        words.push_back(JoinForShell(AgentWords(options->remoteProgram, mountPoint)));
        // In our group, so that it may ask for a password; ssh keeps ignoring an ignored Ctrl-C.
        return StartProcess(words, platform::ChildOptions::Interrupts::Ignored);
    }
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

AgentConnection AgentStarter::StartProcess(const std::vector<std::string> &words,
                                           platform::ChildOptions::Interrupts interrupts)
{
    AgentConnection connection;
    platform::ChildOptions child;
    child.arguments = words;
    child.withStream = true;
    child.onErrorLine = onErrorLine;
    child.interrupts = interrupts;
    connection.process = platform::ChildProcess::Start(child, &connection.error);
    if (connection.process)
        connection.stream = connection.process->TakeStream();
    else
        connection.error = words.front() + " can't be started: " + connection.error;
    return connection;
}

} // namespace fodr::cli
