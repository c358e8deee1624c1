// ShareSession: losses and the end.
#include "agent/Agent.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/ShareSession.h"
#include "lib/unicode/ForeignText.h"

#include <algorithm>
#include <array>

namespace fodr::cli {
namespace {

using namespace std::chrono_literals;

constexpr auto kEndLimit = 30s;    // for the agent to write what is left and unmount
constexpr auto kSilenceLimit = 3s; // within that time without a packet
constexpr int kDeafExitMS = 500;   // for the process of an agent that was given up
constexpr auto kFirstRetry = 500ms;
constexpr auto kLongestRetry = 30s;
constexpr int kAgentExitLimitMS = 4000; // between the end of its stream and its own
constexpr int kSshFailed = 255;
constexpr int kNoSuchCommand = 127;

// Ends of a connection that don't tell why.
bool SaysLittle(const std::string &reason)
{
    return reason == "the peer closed the connection" || reason.starts_with("the connection broke");
}

// Without the "ssh: " that ssh puts in front of its words.
std::string WithoutProgram(const std::string &words)
{
    return words.starts_with("ssh: ") ? words.substr(5) : words;
}

// What an agent's exit code means for the one who started it: the same, where both have a word for it.
int CodeOfAgent(int code)
{
    constexpr std::array kSame = {EXIT_USAGE, EXIT_MOUNT_POINT, EXIT_REFUSED, EXIT_NO_FUSE};
    return std::find(kSame.begin(), kSame.end(), code) != kSame.end() ? code : EXIT_LOST;
}

} // namespace

void ShareSession::HandleLost(const std::string &reason)
{
    attached = false;
    StopTimer();
    if (options.verbose && phase != Phase::Ending) // at our own end that is no news
        Complain("the connection ended: " + reason);
    const Cause cause = FindCause(reason);
    if (phase == Phase::Ending) {
        finished = true;
        return;
    }
    if (everReady && options.reconnect && !cause.byAgent)
        return TryAgain(cause.sentence);
    if (cause.byAgent && command == nullptr) {
        Say(Escaped(cause.sentence) + ".");
        BeginEnd(EXIT_DONE);
    } else {
        Fail(cause.code, cause.sentence);
    }
}

// Why the connection ended, from the most telling source there is. Takes the agent's process down, if we
// started it.
ShareSession::Cause ShareSession::FindCause(const std::string &reason)
{
    std::optional<platform::ChildProcess::Exit> exit;
    if (agent) {
        exit = agent->Wait(agentIsDeaf ? kDeafExitMS : kAgentExitLimitMS);
        agent.reset(); // and with it its last words have come
    }
    std::string lastWords;
    {
        const MutexLock held(linesLock);
        lastWords = Plain(lastAgentLine);
    }
    const bool busy = exit && !exit->bySignal && exit->code == agent::AGENT_BUSY; // and has said by whom
    if (busy && phase == Phase::Ending && exitCode == EXIT_DONE)
        exitCode = EXIT_STILL_USED;
    const bool ended = exit && !exit->bySignal && (exit->code == agent::AGENT_ENDED || busy);
    const bool saidGoodbye = !agentGoodbye.empty() && agentError.empty();
    if (everReady && (ended || saidGoodbye))
        return {EXIT_LOST, MountedAt() + " was unmounted", true};
    if (!sideError.empty())
        return {EXIT_LOST, sideError, false};
    const std::string loss = "the connection to " + options.target.Name() + " is lost: " + reason;
    if (agentError.empty())
        agentError = agentGoodbye;
    if (agentError.empty() && !SaysLittle(reason))
        return {EXIT_LOST, loss, false};
    if (exit && (exit->bySignal || exit->code != 0))
        return CauseOfExit(*exit, agentError.empty() ? lastWords : Plain(agentError));
    if (!agentError.empty())
        return {EXIT_REFUSED, "the agent ended: " + Plain(agentError), false};
    return {EXIT_LOST, loss, false};
}

ShareSession::Cause ShareSession::CauseOfExit(const platform::ChildProcess::Exit &exit,
                                              const std::string &lastWords) const
{
    const bool ssh = options.target.kind == AgentTarget::Kind::Ssh;
    const std::string &machine = options.target.host;
    if (exit.bySignal)
        return {EXIT_LOST,
                (ssh ? options.sshWords.front() : std::string("the agent")) + " was killed by signal " +
                    std::to_string(exit.code),
                false};
    if (ssh && exit.code == kSshFailed && everReady)
        return {EXIT_LOST,
                "the connection to " + machine + " is lost" + (lastWords.empty() ? "" : ": " + lastWords),
                false};
    if (ssh && exit.code == kSshFailed)
        return {EXIT_SSH,
                "ssh to " + machine + " failed" + (lastWords.empty() ? "" : ": " + WithoutProgram(lastWords)),
                false};
    if (ssh && exit.code == kNoSuchCommand)
        return {EXIT_SSH,
                "there is no " + options.remoteProgram + " on " + machine +
                    ": install it there or say where it is with --remote-fodr",
                false};
    const std::string where = ssh ? " (on " + machine + ")" : "";
    if (lastWords.empty())
        return {CodeOfAgent(exit.code), "the agent ended with code " + std::to_string(exit.code) + where,
                false};
    return {CodeOfAgent(exit.code), lastWords + where, false};
}

// The plug-in gets a new instance with the next connection, which is asked for every share anew.
void ShareSession::TryAgain(const std::string &sentence)
{
    if (phase != Phase::Waiting && phase != Phase::Connecting)
        Complain(sentence + "; trying again");
    phase = Phase::Waiting;
    mounted.clear();
    if (channel)
        channel->DestroyInstance();
    shares->StartOver();
    ClearMount();
    retryAfter = retryAfter == 0ms ? std::chrono::milliseconds(kFirstRetry)
                                   : std::min<std::chrono::milliseconds>(2 * retryAfter, kLongestRetry);
    SetTimer(retryAfter);
    ShowProgress("trying to reach " + options.target.Name() + " again");
}

// One sentence for the first thing that goes wrong, then the end.
void ShareSession::Fail(int code, const std::string &sentence)
{
    if (phase == Phase::Ending)
        return;
    Complain(sentence);
    EndCommand();
    BeginEnd(code);
}

void ShareSession::EndCommand()
{
    if (commandRuns)
        command->Terminate();
}

void ShareSession::BeginEnd(int code)
{
    if (phase == Phase::Ending)
        return;
    phase = Phase::Ending;
    exitCode = code;
    StopTimer();
    starter.Cancel();
    if (!attached || channel == nullptr || channel->GetConnectionState() != CONNECTION_CONNECTED) {
        finished = true;
        return;
    }
    ShowProgress("unmounting " + MountedAt());
    channel->SayGoodbye("the user ends it");
    endLimit = Clock::now() + kEndLimit;
    lastPacket = Clock::now();
    SetTimer(kSilenceLimit);
}

void ShareSession::GiveUpSilentAgent()
{
    const auto now = Clock::now();
    const auto quietUntil = lastPacket.load() + kSilenceLimit;
    if (now < quietUntil && now < endLimit) {
        timer = std::min(quietUntil, endLimit);
        return;
    }
    Complain("the agent doesn't finish; what it hasn't written yet is lost");
    exitCode = exitCode == EXIT_DONE ? EXIT_LOST : exitCode;
    agentIsDeaf = true;
    channel->Close("the agent doesn't finish");
}

bool ShareSession::ClearMount()
{
    return !mountPoint ||
           mountPoint->Clear([this](const std::string &path) { return confinement.DetachMount(path); });
}

void ShareSession::CleanUp()
{
    control.End();
    starter.Cancel();
    if (connector.joinable())
        connector.join();
    if (channel)
        channel->Close("the host ends"); // frees whatever of the plug-in waits to send
    if (agent)
        agent->Wait(agentIsDeaf ? kDeafExitMS : kAgentExitLimitMS);
    agent.reset();
    if (host)
        host->Bus().Unsubscribe(noticeSubscription);
    channel.reset();
    host.reset();
    if (commandWaiter.joinable()) {
        if (!command->Wait(kAgentExitLimitMS))
            command->Kill();
        commandWaiter.join();
    }
    if (!ClearMount())
        Complain("the mount at \"" + mountPoint->Path() + "\" can't be taken away: unmount it");
    mountPoint.reset();
    warnings.ShowCounts();
    ShowProgress("");
}

} // namespace fodr::cli
