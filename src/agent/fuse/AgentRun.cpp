#include "agent/fuse/AgentRun.h"

#include "agent/fuse/FuseSession.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>

namespace fodr::agent {
namespace {

constexpr int kForever = -1;
constexpr int kShareReturnMS = 30000;                 // for the other shares of a host that is back
constexpr auto kWritesTime = std::chrono::seconds(5); // for what is on its way when the agent ends

void Say(const std::string &sentence)
{
    fprintf(stderr, "fodr: %s\n", sentence.c_str());
}

FileSystem::Options FileSystemOptions(const AgentOptions &options)
{
    return {.folders = options.layout == MountLayout::Folders,
            .cacheSeconds = options.cacheMS / 1000.0,
            .denyWriters = options.denyWriters,
            .events = options.events && !options.readOnly,
            .owner = {getuid(), getgid(), options.realOwners}};
}

AgentExit ExitAfter(ChannelEnd end)
{
    if (end == ChannelEnd::Goodbye)
        return AGENT_ENDED;
    return end == ChannelEnd::Refused ? AGENT_REFUSED : AGENT_LOST;
}

// Blocks the signals that end the agent and gives a descriptor to wait for them; -1 without.
int CatchSignals(const AgentOptions &options)
{
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    if (!options.handleSignals)
        return -1;
    sigset_t ending;
    sigemptyset(&ending);
    for (int number : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&ending, number);
    if (options.ownProcess) {
        // A terminal that goes takes the connection along at most.
        sigdelset(&ending, SIGHUP);
        signal(SIGHUP, SIG_IGN);
    }
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);
    return signalfd(-1, &ending, SFD_CLOEXEC | SFD_NONBLOCK);
}

} // namespace

AgentRun::AgentRun(const AgentOptions &agentOptions, FrontLine frontLine)
    : wakeEvent(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), options(agentOptions),
      files(FileSystemOptions(agentOptions)), front(std::move(frontLine))
{}

AgentRun::~AgentRun() = default;

// ---- What others tell ----

void AgentRun::WakeUp()
{
    eventfd_write(wakeEvent.Get(), 1);
}

void AgentRun::OnReady()
{
    {
        const MutexLock held(lock);
        ready = true;
    }
    WakeUp();
}

// The host learns that the share can be used once it is shown: who added it may look at once.
bool AgentRun::OnDeviceAdded(const RemoteDevice &device)
{
    const auto share = std::make_shared<RemoteShare>(*client, device);
    FileSystem::AskFeatures(share, [this, share] { ShowShare(share); });
    return false;
}

void AgentRun::ShowShare(const std::shared_ptr<RemoteShare> &share)
{
    const RemoteDevice &device = share->Device();
    bool added = files.AddShare(share);
    if (!added) {
        // Its place may be that of a share which hasn't come back.
        const bool single = options.layout == MountLayout::Single;
        client->DropMissingShares(single ? std::string_view{} : device.name);
        added = files.AddShare(share);
    }
    // Before this connection is told: should it be lost by now, OnDeviceBack tells the next one.
    client->Accept(device.id);
    if (added)
        return NoteShown(device);
    client->Channel()->SendNotice(transport::NoticeKind::Warning,
                                  device.name + ": isn't shown, the mount is taken by another share");
    WakeUp();
}

void AgentRun::OnDeviceBack(const RemoteDevice &device)
{
    NoteShown(device);
}

void AgentRun::NoteShown(const RemoteDevice &device)
{
    client->Channel()->SendNotice(transport::NoticeKind::ShareReady, device.name);
    {
        const MutexLock held(lock);
        shown = true;
    }
    WakeUp();
}

void AgentRun::OnDeviceRemoved(uint32_t deviceId)
{
    files.RemoveShare(deviceId);
}

void AgentRun::OnGoodbye(const std::string &)
{
    {
        const MutexLock held(lock);
        goodbye = true;
    }
    WakeUp();
}

void AgentRun::OnLost(ChannelEnd end, const std::string &reason)
{
    {
        const MutexLock held(lock);
        lost = true;
        channelEnd = end;
        endReason = reason;
    }
    WakeUp();
}

void AgentRun::OnEnded(ChannelEnd end, const std::string &reason)
{
    {
        const MutexLock held(lock);
        ended = true;
        channelEnd = end;
        endReason = reason;
    }
    WakeUp();
}

// ---- The run ----

AgentRun::Event AgentRun::WhatHappened(Until until)
{
    const MutexLock held(lock);
    if (ended)
        return Event::Ended;
    if (unmounted)
        return Event::Unmounted;
    if (goodbye)
        return Event::Goodbye;
    if (until == Until::Successor)
        return successor || nextStream ? Event::Successor : Event::None;
    if (lost)
        return Event::Lost;
    const bool folders = options.layout == MountLayout::Folders;
    if (until == Until::Share && (folders ? ready : shown && files.HasShare()))
        return Event::ShareCame;
    return Event::None;
}

AgentRun::Event AgentRun::WaitFor(Until until, int timeoutMS)
{
    const auto end = Clock::now() + std::chrono::milliseconds(timeoutMS);
    for (;;) {
        if (const Event event = WhatHappened(until); event != Event::None)
            return event;
        int wait = SuccessorWaitMS();
        if (timeoutMS != kForever) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
            if (left.count() <= 0)
                return Event::TimedOut;
            const int rest = static_cast<int>(std::min<int64_t>(left.count() + 1, INT_MAX));
            wait = wait == kForever ? rest : std::min(wait, rest);
        }
        pollfd waits[] = {{wakeEvent.Get(), POLLIN, 0},
                          {signals.Get(), POLLIN, 0},
                          {handOver ? handOver->Descriptor() : -1, POLLIN, 0},
                          {front.Descriptor(), POLLIN, 0}};
        poll(waits, std::size(waits), wait);
        eventfd_t count;
        if (waits[0].revents && eventfd_read(wakeEvent.Get(), &count) < 0 && errno != EAGAIN)
            return Event::Ended;
        if (waits[1].revents || (waits[3].revents && front.TakeEndWish()))
            return Event::Signal;
        if (waits[2].revents)
            TakeSuccessor();
        RefuseOverdue();
    }
}

std::pair<ChannelEnd, std::string> AgentRun::HowItEnded()
{
    const MutexLock held(lock);
    return {channelEnd, endReason};
}

int AgentRun::Fail(AgentExit result, const std::string &sentence)
{
    Say(sentence);
    client->Channel()->SendNotice(transport::NoticeKind::Error, sentence);
    client->Channel()->Close("the agent has ended");
    return result;
}

int AgentRun::Run(std::unique_ptr<platform::ByteStream> stream)
{
    signals.Reset(CatchSignals(options));
    options.client.outlivesConnections = PrepareToLinger();
    int result;
    {
        RdpdrClient connected(std::move(stream), options.client, this);
        client = &connected;
        client->Start();
        result = RunConnected();
    } // what still waits is answered here
    EndNextStream();
    session.reset();
    handOver.reset();
    front.SayLastExit(result);
    return result;
}

int AgentRun::RunConnected()
{
    std::string error;
    if (!PrepareMountPoint(options.mountPoint, &error))
        return Fail(AGENT_MOUNT_FAILED, error);
    if (char *resolved = realpath(options.mountPoint.c_str(), nullptr)) {
        options.mountPoint = resolved;
        free(resolved);
    }
    const int patience = options.shareWaitMS == 0 ? kForever : static_cast<int>(options.shareWaitMS);
    const Event came = WaitFor(Until::Share, patience);
    if (came != Event::ShareCame)
        return EndedBeforeMount(came);
    if (!MountNow())
        return AGENT_MOUNT_FAILED;
    if (options.client.outlivesConnections)
        client->OutliveConnections();
    return TakeDown(Serve());
}

// Until something ends it all.
AgentRun::Event AgentRun::Serve()
{
    int shareTimeMS = kForever;
    for (;;) {
        Event event = WaitFor(Until::Loss, shareTimeMS);
        shareTimeMS = kForever;
        if (event == Event::TimedOut) {
            client->DropMissingShares();
            continue;
        }
        if (event != Event::Lost)
            return event;
        event = Linger();
        if (event != Event::ShareCame)
            return event;
        shareTimeMS = kShareReturnMS;
    }
}

bool AgentRun::MountNow()
{
    std::string error;
    session = FuseSession::Mount(
        files,
        {.mountPoint = options.mountPoint, .readOnly = options.readOnly, .allowOther = options.allowOther},
        &error);
    if (!session) {
        Fail(AGENT_MOUNT_FAILED, error);
        return false;
    }
    session->Start([this] {
        {
            const MutexLock held(lock);
            unmounted = true;
        }
        WakeUp();
    });
    client->Channel()->SendNotice(transport::NoticeKind::Mounted, options.mountPoint);
    return true;
}

int AgentRun::EndedBeforeMount(Event event)
{
    switch (event) {
    case Event::Signal:
    case Event::Goodbye:
        client->Channel()->Close("the agent was asked to end");
        return AGENT_ENDED;
    case Event::TimedOut:
        return Fail(AGENT_REFUSED, "no share was announced in " + std::to_string(options.shareWaitMS / 1000) +
                                       " seconds, so there is nothing to mount");
    default:
        break;
    }
    const auto [end, reason] = HowItEnded();
    Say("the connection ended before anything was mounted: " + reason);
    return ExitAfter(end);
}

// Detached users lose what isn't on its way yet; what is, is waited for a little.
void AgentRun::WaitForWrites()
{
    files.WhenNoWritesAreInFlight([this] { WakeUp(); });
    const auto end = Clock::now() + kWritesTime;
    for (Clock::duration left = kWritesTime; files.HasWritesInFlight() && left.count() > 0;
         left = end - Clock::now()) {
        {
            const MutexLock held(lock);
            if (ended || lost)
                return;
        }
        pollfd wait = {wakeEvent.Get(), POLLIN, 0};
        const auto leftMS = std::chrono::ceil<std::chrono::milliseconds>(left).count();
        eventfd_t count;
        if (poll(&wait, 1, static_cast<int>(leftMS)) > 0 && eventfd_read(wakeEvent.Get(), &count) < 0 &&
            errno != EAGAIN)
            return;
    }
}

int AgentRun::TakeDown(Event event)
{
    int result = AGENT_ENDED;
    std::string remark;
    if (event == Event::Ended || event == Event::Lost) {
        const auto [end, reason] = HowItEnded();
        Say("the connection ended: " + reason);
        result = ExitAfter(end);
    }
    files.events.Actor().Stop(); // it would keep the mount busy
    if (event != Event::Unmounted && Unmount(options.mountPoint, &remark) != UnmountOutcome::Unmounted) {
        Say(remark);
        client->Channel()->SendNotice(transport::NoticeKind::Warning, remark);
        if (result == AGENT_ENDED)
            result = AGENT_BUSY;
        WaitForWrites();
    }
    session->Stop();
    files.Clear();
    client->Channel()->SendNotice(transport::NoticeKind::Unmounted, options.mountPoint);
    client->Channel()->Close("the agent has unmounted");
    return result;
}

int RunAgent(std::unique_ptr<platform::ByteStream> stream, const AgentOptions &options)
{
    int ends[2];
    if (options.lingerSeconds != 0 && options.ownProcess &&
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0) {
        Fd ours(ends[0]), theirs(ends[1]);
        const pid_t child = fork();
        if (child > 0) {
            // The mount and its folder are the child's: nothing is cleaned up here.
            theirs.Reset(-1);
            stream.reset();
            _exit(FrontLine::AwaitExit(std::move(ours)));
        }
        ours.Reset(-1);
        if (child == 0) {
            setsid();
            AgentRun run(options, FrontLine(std::move(theirs)));
            return run.Run(std::move(stream));
        }
    }
    AgentRun run(options, FrontLine());
    return run.Run(std::move(stream));
}

} // namespace fodr::agent
