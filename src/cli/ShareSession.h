// One run of `fodr share`, from the start of the plug-in to its end.
//
// Threads: everything happens on the thread that called Run, one event after the other; what other threads
// hear (signals, the channel, the message bus, control connections, ends of processes) they post to it.
#pragma once

#include "agent/AgentChannel.h"
#include "cli/AgentStarter.h"
#include "cli/Console.h"
#include "cli/MountFolder.h"
#include "cli/ShareControl.h"
#include "host/HostChannel.h"
#include "host/PrivateSettings.h"
#include "lib/misc/Mutex.h"
#include "platform/ChildProcess.h"
#include "platform/Process.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

namespace fodr::cli {

class ShareSession final : private host::IChannelListener, private IShareRun {
public:
    // The settings and the confinement are in force already; the latter outlives the session. `place` is for
    // an agent on this machine.
    ShareSession(const ShareOptions &shareOptions, std::unique_ptr<host::PrivateSettings> privateSettings,
                 std::string runtimeFolder, std::unique_ptr<MountFolder> place,
                 const RunConfinement &runConfinement);
    ~ShareSession();
    ShareSession(const ShareSession &) = delete;
    ShareSession &operator=(const ShareSession &) = delete;

    // The exit code. What went wrong has been said.
    int Run();

    // From the thread that takes signals.
    void OnTermination(platform::TerminationRequest request);

private:
    using Clock = std::chrono::steady_clock;
    enum class Phase {
        Connecting, // no agent yet
        Starting,   // an agent, not all shares yet
        Running,    // usable
        Waiting,    // lost, until the next attempt
        Ending,
    };

    // ---- Start ----
    bool Prepare();
    bool StartPlugin();
    bool StartControl();
    void Connect();
    void HandleConnection(std::shared_ptr<AgentConnection> made);
    void CheckReady();
    void BecomeReady();
    void StartCommand();

    // ---- Events ----
    void OnConnected() override;
    void OnInstanceRefused() override;
    void OnNotice(transport::NoticeKind kind, const std::string &text) override;
    void OnAgentGoodbye(const std::string &reason) override;
    void OnSideChannelFailed(const std::string &reason) override;
    void OnLost(const std::string &reason) override;
    void HandleNotice(transport::NoticeKind kind, const std::string &text);
    void HandleTermination(platform::TerminationRequest request);
    void HandleShareChanged(const host::FolderShare &share);
    void HandleCommandEnd(platform::ChildProcess::Exit exit);
    void HandleAgentLine(const std::string &line);
    void HandleStranger(const std::string &reason);
    void HandleTimer();

    // ---- End (ShareSessionEnd.cpp) ----
    struct Cause {
        int code;
        std::string sentence;
        bool byAgent = false; // the agent ended on its own, as it should
    };
    void HandleLost(const std::string &reason);
    Cause FindCause(const std::string &reason);
    Cause CauseOfExit(const platform::ChildProcess::Exit &exit, const std::string &lastWords) const;
    void TryAgain(const std::string &sentence);
    void Fail(int code, const std::string &sentence);
    void BeginEnd(int code);
    void CleanUp();
    void EndCommand();
    void GiveUpSilentAgent();
    bool ClearMount();

    // ---- What the run says of itself, to ShareControl ----
    void Post(host::EventQueue::Event event) override { queue.Post(std::move(event)); }
    const ShareOptions &Options() const override { return options; }
    host::FolderShares &Shares() override { return *shares; }
    std::string Place() const override { return mounted.empty() ? "" : MountedAt(); }
    std::string ConflictWith(const std::string &path) const override;
    bool AllowFolders(const std::vector<std::string> &folders) override;
    std::vector<host::Words> StatusRows() const override;
    std::vector<host::Words> TrafficRows() const override;
    void WakeWithin(std::chrono::milliseconds time) override
    {
        if (!timer)
            SetTimer(time);
    }

    void SetTimer(std::chrono::milliseconds time) { timer = Clock::now() + time; }
    void StopTimer() { timer.reset(); }
    std::string MountedAt() const;
    void SayReady();
    void FollowSettings();

    const ShareOptions options;
    const RunConfinement &confinement;
    const std::string folder;
    WarningCounter warnings{Complain}; // of the agent
    host::EventQueue queue;
    const std::unique_ptr<host::PrivateSettings> settings; // posts to the queue
    std::unique_ptr<host::PluginHost> host;
    std::unique_ptr<host::FolderShares> shares;
    agent::PacketTraffic traffic; // counts on the channel's threads
    std::unique_ptr<host::HostChannel> channel;
    ShareControl control{this};
    std::unique_ptr<MountFolder> mountPoint; // Local
    AgentStarter starter;
    std::thread connector;
    std::unique_ptr<platform::ChildProcess> agent;
    std::unique_ptr<platform::ChildProcess> command;
    std::thread commandWaiter;
    uint32_t noticeSubscription = 0;

    const Clock::time_point started = Clock::now();
    Phase phase = Phase::Connecting;
    bool finished = false;
    bool agentIsDeaf = false;                           // it has been silent at the end for too long
    std::atomic<Clock::time_point> lastPacket{started}; // either way, by the channel's threads
    Clock::time_point endLimit;                         // for an agent that has something to say
    int exitCode = 0;
    bool attached = false; // the channel has a connection, or its end hasn't been reported yet
    bool everReady = false;
    std::string mounted;      // by the agent's word; empty: not yet
    std::string agentError;   // the agent's word about what went wrong
    std::string agentGoodbye; // and about why it ends
    std::string sideError;    // why a side channel failed
    std::chrono::milliseconds retryAfter{0};
    unsigned reconnects = 0;
    std::optional<Clock::time_point> timer;

    std::atomic<int> strangers{0}; // that connected and were sent away
    Mutex linesLock;
    std::string lastAgentLine GUARDED_BY(linesLock);
    std::atomic<unsigned> terminations{0};
    std::atomic<bool> commandRuns{false};
};

} // namespace fodr::cli
