// AgentRun: without a connection, and from one to the next.
#include "agent/fuse/AgentRun.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>

namespace fodr::agent {
namespace {

// For the present connection to turn out as lost, when its host is back already.
constexpr auto kSuccessorTime = std::chrono::seconds(2);

// Nobody reads what is said there any more, and who waits for its end doesn't wait for this process.
void LetGoOfStandardStreams()
{
    const Fd nothing(open("/dev/null", O_RDWR | O_CLOEXEC));
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        dup2(nothing.Get(), standard);
}

} // namespace

// False when the agent is to end with its connection.
bool AgentRun::PrepareToLinger()
{
    if (options.lingerSeconds == 0)
        return false;
    std::string error;
    handOver = HandOverSocket::Listen(options.mountPoint, &error);
    if (!handOver)
        fprintf(stderr, "fodr: the mount won't outlive its connection: no socket for the next one: %s\n",
                error.c_str());
    return handOver != nullptr;
}

// Who waits for the connection hears of its end.
void AgentRun::LeaveConnection()
{
    const auto [end, reason] = HowItEnded();
    fprintf(stderr, "fodr: the connection ended: %s; the mount stays\n", reason.c_str());
    client->Channel()->Stop(); // closes its streams
    if (options.ownProcess)
        LetGoOfStandardStreams();
    front.SayExit(end == ChannelEnd::Refused ? AGENT_REFUSED : AGENT_LOST);
}

// ShareCame: there is a connection again. Else what ended the wait.
AgentRun::Event AgentRun::Linger()
{
    for (;;) {
        LeaveConnection();
        BeginNextStream();
        const int64_t wait = std::min<int64_t>(int64_t{options.lingerSeconds} * 1000, INT_MAX);
        const Event event = WaitFor(Until::Successor, static_cast<int>(wait));
        if (event == Event::TimedOut)
            return Event::Lost;
        if (event != Event::Successor)
            return event;
        std::unique_ptr<platform::ByteStream> stream = TakeNextStream();
        if (successor && !stream) {
            stream = std::move(successor->stream);
            front = std::move(successor->front);
            if (options.ownProcess) {
                dup2(successor->errors.Get(), STDOUT_FILENO);
                dup2(successor->errors.Get(), STDERR_FILENO);
            }
            successor.reset();
        }
        const Event came = GoOn(std::move(stream));
        if (came != Event::Lost)
            return came;
    }
}

AgentRun::Event AgentRun::GoOn(std::unique_ptr<platform::ByteStream> stream)
{
    EndNextStream();
    {
        const MutexLock held(lock);
        ready = shown = lost = false;
    }
    client->Reconnect(std::move(stream));
    const Event came =
        WaitFor(Until::Share, options.shareWaitMS == 0 ? -1 : static_cast<int>(options.shareWaitMS));
    if (came == Event::ShareCame)
        client->Channel()->SendNotice(transport::NoticeKind::Mounted, options.mountPoint);
    if (came != Event::TimedOut)
        return came;
    client->Channel()->SendNotice(transport::NoticeKind::Error, "no share was announced");
    client->Channel()->Close("no share was announced");
    return WaitFor(Until::Loss, -1);
}

// ---- Later agents ----

void AgentRun::TakeSuccessor()
{
    std::optional<Successor> arrived = handOver->Accept();
    if (!arrived || !arrived->stream)
        return;
    const std::string mounted =
        options.mountPoint + ": is mounted already by the agent with process id " + std::to_string(getpid());
    if (arrived->settings != MountSettings(options))
        return arrived->front.SayRefused(mounted + ", with other options or another token; unmount it first");
    if (successor)
        return arrived->front.SayRefused(mounted + ", and another host is about to take it over");
    successor = std::move(arrived);
    successorLimit = Clock::now() + kSuccessorTime;
}

void AgentRun::RefuseOverdue()
{
    if (!successor || Clock::now() < successorLimit)
        return;
    successor->front.SayRefused(options.mountPoint + ": is mounted already by the agent with process id " +
                                std::to_string(getpid()) + ", which has a connection to its host");
    successor.reset();
}

int AgentRun::SuccessorWaitMS() const
{
    if (!successor)
        return -1;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(successorLimit - Clock::now());
    return static_cast<int>(std::max<int64_t>(left.count() + 1, 0));
}

// ---- Connections of this process's own ----

void AgentRun::BeginNextStream()
{
    if (!options.nextStream || nextThread.joinable())
        return;
    {
        const MutexLock held(lock);
        nextWanted = true;
    }
    nextThread = std::thread([this] {
        for (;;) {
            std::unique_ptr<platform::ByteStream> stream = options.nextStream();
            const MutexLock held(lock);
            if (!nextWanted)
                return;
            if (!stream)
                continue;
            nextStream = std::move(stream);
            WakeUp();
            return;
        }
    });
}

std::unique_ptr<platform::ByteStream> AgentRun::TakeNextStream()
{
    const MutexLock held(lock);
    return std::move(nextStream);
}

void AgentRun::EndNextStream()
{
    if (!nextThread.joinable())
        return;
    {
        const MutexLock held(lock);
        nextWanted = false;
    }
    options.stopNextStream();
    nextThread.join();
    TakeNextStream().reset();
}

} // namespace fodr::agent
