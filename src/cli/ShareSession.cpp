#include "cli/ShareSession.h"

#include "cli/Commands.h"
#include "cli/Console.h"
#include "host/ControlServer.h"
#include "lib/unicode/ForeignText.h"
#include "platform/Process.h"

#include <algorithm>

namespace fodr::cli {
namespace {

using namespace std::chrono_literals;

constexpr auto kGreetingLimit = 30s;
constexpr auto kReadyLimit = 60s;               // from the agent's greeting to the last share
constexpr unsigned kDefaultIoTimeout = 10;      // seconds; the agent's default as well
constexpr unsigned kLongestIoTimeout = 1000000; // so that milliseconds fit a number
constexpr int kMostStrangersNamed = 10;
constexpr size_t kLongestPlace = 4096; // that an agent may name
constexpr char kLoopback[] = "127.0.0.1";
constexpr transport::KeepAlive kOverNetwork{10000, 30000};
constexpr transport::KeepAlive kOnThisMachine{0, 0}; // a lost end is noticed at once

host::ChannelOptions ChannelOptionsFor(const ShareOptions &options)
{
    host::ChannelOptions channel;
    const AgentTarget &target = options.target;
    const bool local = target.kind == AgentTarget::Kind::Local;
    // Who connects shows it, who listens compares it.
    if (target.kind == AgentTarget::Kind::Connect)
        channel.token = options.token;
    if (target.kind == AgentTarget::Kind::Listen)
        channel.expectedToken = options.token;
    channel.writeTimeoutMS = static_cast<int>(
        1000 * std::min(options.ioTimeoutSeconds.value_or(kDefaultIoTimeout), kLongestIoTimeout));
    channel.keepAlive = local ? kOnThisMachine : kOverNetwork;
    // Where an agent that came to us is, only its connection knows.
    if (target.kind != AgentTarget::Kind::Listen)
        channel.sideChannelHost = local ? kLoopback : target.host.substr(target.host.find('@') + 1);
    return channel;
}

} // namespace

ShareSession::ShareSession(const ShareOptions &shareOptions,
                           std::unique_ptr<host::PrivateSettings> privateSettings, std::string runtimeFolder,
                           std::unique_ptr<MountFolder> place, const RunConfinement &runConfinement)
    : options(shareOptions), confinement(runConfinement), folder(std::move(runtimeFolder)),
      settings(std::move(privateSettings)), mountPoint(std::move(place)),
      starter(
          &options, &confinement, [this](const std::string &line) { HandleAgentLine(line); },
          [this](const std::string &reason) { HandleStranger(reason); })
{}

ShareSession::~ShareSession() = default;

int ShareSession::Run()
{
    if (Prepare())
        Connect();
    while (!finished) {
        if (!queue.RunOne(timer.value_or(Clock::time_point::max())))
            HandleTimer();
        control.AnswerOverdue();
    }
    CleanUp();
    return exitCode;
}

// ---- Start ----

bool ShareSession::Prepare()
{
    std::string problem;
    if (!starter.Prepare(&problem)) {
        Fail(EXIT_OTHER, "can't listen for the agent: " + problem);
        return false;
    }
    return StartPlugin() && StartControl();
}

bool ShareSession::StartPlugin()
{
    std::string problem;
    host = host::PluginHost::Create(options.pluginPath, &problem);
    if (!host) {
        Fail(EXIT_NO_PLUGIN, "the plug-in " + options.pluginPath + " can't be used: " + problem);
        return false;
    }
    noticeSubscription = host->Bus().Subscribe(
        host::FolderShares::kNoticeName, this,
        [](void *self, const char * /*sender*/, const char *cookie, const char *text) {
            auto *session = static_cast<ShareSession *>(self);
            session->queue.Post([session, to = std::string(cookie), what = std::string(text)] {
                session->shares->HandleNotice(to, what);
            });
            return true;
        });
    shares = std::make_unique<host::FolderShares>(
        &host->Bus(), [this](const host::FolderShare &share) { HandleShareChanged(share); });
    std::vector<std::string> asked;
    for (const WantedFolder &shared : options.folders) {
        for (std::string &form : host::FolderShares::OfferedForms(shared.path, shared.files))
            asked.push_back(std::move(form));
    }
    if (!AllowFolders(asked))
        return false;
    for (const WantedFolder &shared : options.folders)
        shares->Add(shared.path, shared.name, shared.files);
    FollowSettings();
    host::ChannelOptions channelOptions = ChannelOptionsFor(options);
    channelOptions.onBlock = [this](const transport::Parameter &packet) {
        lastPacket = Clock::now();
        traffic.Count(packet.block.data(), packet.block.size(), packet.block.size() + packet.tail.size());
    };
    channel = std::make_unique<host::HostChannel>(host.get(), channelOptions,
                                                  static_cast<host::IChannelListener *>(this));
    return true;
}

bool ShareSession::AllowFolders(const std::vector<std::string> &folders)
{
    std::string problem;
    const bool allowed = settings->Allow(folders, &problem);
    if (!allowed && phase == Phase::Connecting && !everReady)
        Fail(EXIT_OTHER, problem);
    return allowed;
}

// What the user sets while we run reaches the plug-in.
void ShareSession::FollowSettings()
{
    settings->Follow([this] {
        queue.Post([this] {
            std::string problem;
            if (!settings->Refresh(&problem))
                Complain(problem);
        });
    });
}

bool ShareSession::StartControl()
{
    std::string problem;
    if (control.Start(folder, &problem))
        return true;
    Fail(EXIT_OTHER, "the control socket in " + folder + " can't be made: " + problem);
    return false;
}

void ShareSession::Connect()
{
    phase = Phase::Connecting;
    StopTimer();
    if (options.target.kind == AgentTarget::Kind::Listen && !everReady)
        Complain("waiting for an agent on port " + std::to_string(starter.Port()));
    ShowProgress("connecting to " + options.target.Name());
    if (connector.joinable())
        connector.join();
    connector = std::thread([this, path = mountPoint ? mountPoint->Path() : options.target.mountPoint] {
        auto made = std::make_shared<AgentConnection>(starter.Connect(path));
        queue.Post([this, made] { HandleConnection(made); });
    });
}

void ShareSession::HandleConnection(std::shared_ptr<AgentConnection> made)
{
    if (phase == Phase::Ending)
        return; // an agent that was started sees the end of its stream
    if (!made->stream) {
        const bool ssh = options.target.kind == AgentTarget::Kind::Ssh;
        const std::string sentence = "can't reach " + options.target.Name() + ": " + made->error;
        if (everReady)
            TryAgain(sentence);
        else
            Fail(ssh ? EXIT_SSH : EXIT_LOST, sentence);
        return;
    }
    phase = Phase::Starting;
    agent = std::move(made->process);
    attached = true;
    mounted.clear();
    agentError.clear();
    agentGoodbye.clear();
    sideError.clear();
    {
        const MutexLock held(linesLock);
        lastAgentLine.clear();
    }
    // ssh may be asking for a password.
    if (options.target.kind != AgentTarget::Kind::Ssh)
        SetTimer(kGreetingLimit);
    channel->Attach(std::move(made->stream));
}

void ShareSession::CheckReady()
{
    if (phase != Phase::Starting || mounted.empty())
        return;
    const std::vector<host::FolderShare> &all = shares->All();
    const auto settled = [](const host::FolderShare &share) {
        return share.state == host::ShareState::Ready || share.state == host::ShareState::Refused;
    };
    if (std::all_of(all.begin(), all.end(), settled))
        BecomeReady();
}

void ShareSession::BecomeReady()
{
    phase = Phase::Running;
    StopTimer();
    retryAfter = 0ms;
    ShowProgress("");
    const bool first = !everReady;
    everReady = true;
    if (!first) {
        ++reconnects;
        Complain("connected to " + options.target.Name() + " again");
        return;
    }
    if (!options.command.empty()) {
        StartCommand();
        return;
    }
    SayReady();
}

std::string ShareSession::MountedAt() const
{
    return options.target.PlaceOf(mounted);
}

void ShareSession::StartCommand()
{
    std::string problem;
    // Scripts take the path as it is, so what the agent says must be one.
    if (!mountPoint && !IsPlainAbsolutePath(mounted))
        return Fail(EXIT_REFUSED, "the agent says that it has mounted at \"" + Escaped(mounted) +
                                      "\", which is no plain path for FODR_MOUNT");
    platform::ChildOptions child;
    child.arguments = options.command;
    child.environment = {{"FODR_MOUNT", mounted}};
    command = confinement.Start(child, &problem);
    if (!command)
        return Fail(EXIT_CANNOT_START, options.command.front() + " can't be started: " + problem);
    commandRuns = true;
    commandWaiter = std::thread([this] {
        const auto exit = command->Wait(-1);
        commandRuns = false;
        queue.Post([this, exit] { HandleCommandEnd(*exit); });
    });
}

// ---- Events ----

void ShareSession::OnConnected()
{
    queue.Post([this] {
        if (phase != Phase::Starting)
            return;
        SetTimer(kReadyLimit);
        ShowProgress("mounting");
    });
}

void ShareSession::OnInstanceRefused()
{
    queue.Post([this] {
        Fail(EXIT_NO_PLUGIN, "the plug-in " + options.pluginPath +
                                 " could not be initialised: see its log (fodr config set logToStderr true)");
    });
}

void ShareSession::OnNotice(transport::NoticeKind kind, const std::string &text)
{
    queue.Post([this, kind, text] { HandleNotice(kind, text); });
}

void ShareSession::OnAgentGoodbye(const std::string &reason)
{
    queue.Post([this, reason] { agentGoodbye = reason; });
}

void ShareSession::OnSideChannelFailed(const std::string &reason)
{
    queue.Post([this, reason] {
        sideError = "the side channel could not be opened: " + reason;
        if (options.target.kind != AgentTarget::Kind::Local)
            sideError += "; an agent offers it to its own machine alone, unless --side-address says where";
        channel->Close(sideError); // by its rules the plug-in has given up the channel
    });
}

void ShareSession::OnLost(const std::string &reason)
{
    queue.Post([this, reason] { HandleLost(reason); });
}

void ShareSession::HandleNotice(transport::NoticeKind kind, const std::string &text)
{
    switch (kind) {
    case transport::NoticeKind::Mounted:
        // Where that is on this machine we know ourselves.
        mounted = mountPoint ? mountPoint->Path() : text.substr(0, kLongestPlace);
        CheckReady();
        break;
    case transport::NoticeKind::Warning:
        warnings.Warn(text);
        break;
    case transport::NoticeKind::Error:
        agentError = text;
        break;
    case transport::NoticeKind::ShareReady:
    case transport::NoticeKind::Unmounted:
        break;
    }
}

void ShareSession::OnTermination(platform::TerminationRequest request)
{
    // A second request ends the process at once. The agent sees the end of its stream and unmounts. With a
    // command Ctrl-C is the command's.
    if (!commandRuns && ++terminations > 1)
        platform::EndNow(platform::StatusOf(request));
    queue.Post([this, request] { HandleTermination(request); });
}

void ShareSession::HandleTermination(platform::TerminationRequest request)
{
    if (commandRuns) {
        if (request != platform::TerminationRequest::Interrupt)
            command->Terminate(); // its end is ours
        return;
    }
    BeginEnd(everReady ? EXIT_DONE : platform::StatusOf(request));
}

void ShareSession::HandleShareChanged(const host::FolderShare &share)
{
    control.AnswerPending(share);
    const std::vector<host::FolderShare> &all = shares->All();
    const auto refused = [](const host::FolderShare &entry) {
        return entry.state == host::ShareState::Refused;
    };
    if (phase != Phase::Starting)
        return;
    if (share.state == host::ShareState::Refused && !everReady) {
        const std::string sentence = "\"" + share.path + "\" can't be shared: " + share.problem;
        if (std::all_of(all.begin(), all.end(), refused))
            Fail(EXIT_REFUSED, sentence);
        else
            Complain(sentence);
    }
    CheckReady();
}

void ShareSession::HandleCommandEnd(platform::ChildProcess::Exit exit)
{
    BeginEnd(exit.bySignal ? 128 + exit.code : exit.code);
}

void ShareSession::HandleAgentLine(const std::string &line)
{
    if (line.empty())
        return;
    const MutexLock held(linesLock);
    lastAgentLine = line;
    if (options.verbose)
        warnings.Warn(line);
}

// On the thread that looked at the stranger.
void ShareSession::HandleStranger(const std::string &reason)
{
    const int count = ++strangers;
    if (count <= kMostStrangersNamed)
        Complain(reason);
    if (count == kMostStrangersNamed)
        Complain("what else connects and is sent away isn't told any more");
}

void ShareSession::HandleTimer()
{
    StopTimer();
    if (phase == Phase::Waiting) {
        Connect();
    } else if (phase == Phase::Starting) {
        sideError = "the other side didn't mount the shares in time";
        channel->Close(sideError);
    } else if (phase == Phase::Ending) {
        GiveUpSilentAgent();
    }
}

// ---- What the run says of itself ----

std::string ShareSession::ConflictWith(const std::string &path) const
{
    return mountPoint ? mountPoint->ConflictWith(path) : std::string();
}

std::vector<host::Words> ShareSession::StatusRows() const
{
    constexpr const char *kPhases[] = {"connecting", "starting", "running", "reconnecting", "ending"};
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - started).count();
    return {{"pid", std::to_string(platform::CurrentProcessId())},
            {"state", kPhases[static_cast<size_t>(phase)]},
            {"agent", options.target.Name()},
            {"mount", Place()},
            {"seconds", std::to_string(seconds)},
            {"reconnects", std::to_string(reconnects)},
            {"fixed", options.fixed ? "yes" : "no"},
            {"confined", confinement.State()}};
}

std::vector<host::Words> ShareSession::TrafficRows() const
{
    std::vector<host::Words> rows;
    for (const agent::PacketTraffic::Row &row : traffic.Rows())
        rows.push_back({row.kind, std::to_string(row.packets), std::to_string(row.bytes)});
    return rows;
}

void ShareSession::SayReady()
{
    std::vector<ShownPath> ready;
    for (const host::FolderShare &share : shares->All()) {
        if (share.state == host::ShareState::Ready) {
            for (ShownPath &one : ShownPaths(share, options, Place()))
                ready.push_back(std::move(one));
        }
    }
    const bool sent = !options.folders.front().files.empty();
    Say(Escaped(ready.front().path) + (sent ? " is at " : " is mounted at ") + Escaped(ready.front().place) +
        (ready.size() > 1 ? ", and " + std::to_string(ready.size() - 1) + " more beside it" : "") +
        ". Press Ctrl-C to end.");
}

} // namespace fodr::cli
