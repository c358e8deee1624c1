// `fodr agent`: gets a stream and a mount point, and runs the agent on them.
#include "agent/Agent.h"
#include "cli/AgentCommandLine.h"
#include "cli/Console.h"
#include "cli/ExitCode.h"
#include "cli/MountPoint.h"
#include "cli/Words.h"
#include "platform/Volumes.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

namespace fodr::cli {
namespace {

constexpr int kConnectTimeoutMS = 10000;
constexpr int kAcceptMS = 500;
constexpr std::chrono::milliseconds kFirstPause{500};
constexpr std::chrono::milliseconds kLongestPause{30000};

bool IsLoopback(const std::string &host)
{
    return host.empty() || host == "localhost" || host == "::1" || host.starts_with("127.");
}

// Gets the agent's connections, one after the other, as the command line says.
class StreamSource {
public:
    StreamSource(const AgentCommandWords &commandWords, std::string sessionToken)
        : words(commandWords), token(std::move(sessionToken))
    {}

    // Null after a complaint.
    std::unique_ptr<platform::ByteStream> First()
    {
        std::string error;
        std::unique_ptr<platform::ByteStream> stream;
        if (words.stdio) {
            stream = platform::OpenStandardStream(&error);
        } else {
            const std::string &text = words.listen ? *words.listen : *words.connect;
            place = ParseHostAndPort(text, words.listen.has_value());
            if (!place) {
                Complain("\"" + text + "\" is not " + (words.listen ? "[ADDRESS:]PORT" : "HOST:PORT"));
                return nullptr;
            }
            if (words.connect)
                stream = platform::ConnectTcp(place->host, place->port, kConnectTimeoutMS, &error);
            else if (!IsLoopback(place->host) && token.empty())
                error = "anybody could serve the mount: agree on a token with --token-file or FODR_TOKEN";
            else if ((listener = platform::ListenTcp(place->host.empty() ? "127.0.0.1" : place->host,
                                                     place->port, &error)))
                stream = Admitted(platform::ByteStream::kNoTimeout);
        }
        if (!stream)
            Complain("no connection to a host: " + error);
        // A port that isn't needed again is given up at once.
        if (!words.lingerSeconds)
            listener.reset();
        return stream;
    }

    // Another one, for a host that is back. Null: not yet; or stopped, and to be called again when wanted.
    std::unique_ptr<platform::ByteStream> Next()
    {
        if (listener)
            return Admitted(kAcceptMS);
        {
            std::unique_lock<std::mutex> held(lock);
            wakeup.wait_for(held, pause, [this] { return stopped; });
            if (std::exchange(stopped, false))
                return nullptr;
            pause = std::min(2 * pause, kLongestPause);
        }
        auto stream = platform::ConnectTcp(place->host, place->port, kConnectTimeoutMS, nullptr);
        if (stream)
            pause = kFirstPause;
        return stream;
    }
    void Stop()
    {
        const std::lock_guard<std::mutex> held(lock);
        stopped = true;
        wakeup.notify_all();
    }
    bool CanComeAgain() const { return !words.stdio; }

private:
    // Without a token anybody on this machine could serve the mount: other users are sent away.
    std::unique_ptr<platform::ByteStream> Admitted(int timeoutMS)
    {
        for (;;) {
            auto stream = listener->Accept(timeoutMS);
            if (!stream || !token.empty() || stream->PeerIsThisUser())
                return stream;
            Complain("another user of this machine has connected: agree on a token with --token-file or "
                     "FODR_TOKEN");
        }
    }

    const AgentCommandWords &words;
    const std::string token;
    std::optional<HostAndPort> place; // of TCP
    std::unique_ptr<platform::StreamListener> listener;
    std::mutex lock;
    std::condition_variable wakeup;
    bool stopped = false; // under lock
    std::chrono::milliseconds pause = kFirstPause;
};

} // namespace

int RunAgentCommand(const AgentCommandWords &words)
{
    agent::AgentOptions options;
    std::string problem;
    if (!AgentOptionsFrom(words, &options, &problem)) {
        Complain(problem);
        return EXIT_USAGE;
    }
    if (words.stdio + words.listen.has_value() + words.connect.has_value() != 1) {
        Complain("the agent wants one of --stdio, --listen and --connect");
        return EXIT_USAGE;
    }
    std::string token;
    if (!ReadToken(words.tokenFile, &token))
        return EXIT_USAGE;
    // Who connects shows it, who listens compares it. Over stdio whoever started us has proved enough.
    if (words.listen)
        options.client.expectedToken = token;
    else if (words.connect)
        options.client.token = token;
    const std::string noFuse = platform::MountProblem();
    if (!noFuse.empty()) {
        Complain(noFuse);
        return EXIT_NO_FUSE;
    }
    StreamSource source(words, token);
    // An agent that lives there without a connection takes ours.
    options.mountPoint = words.mount;
    if (!words.listen) {
        if (const auto code = agent::HandOver(options, [&source] { return source.First(); }))
            return *code;
    }
    // With a share on this machine the host has looked at the mount point, and may have made it, already.
    const auto mountPoint = MountPoint::Prepare(words.mount, &problem);
    if (!mountPoint) {
        Complain(problem);
        return EXIT_MOUNT_POINT;
    }
    options.mountPoint = mountPoint->Path();
    auto stream = source.First();
    if (!stream)
        return EXIT_LOST;
    if (source.CanComeAgain()) {
        options.nextStream = [&source] { return source.Next(); };
        options.stopNextStream = [&source] { source.Stop(); };
    }
    return agent::RunAgent(std::move(stream), options);
}

} // namespace fodr::cli
