// `fodr agent`: gets a stream and a mount point, and runs the agent on them.
#include "agent/Agent.h"
#include "cli/AgentCommandLine.h"
#include "cli/Console.h"
#include "cli/ExitCode.h"
#include "cli/MountPoint.h"
#include "cli/Words.h"
#include "platform/Mounts.h"

namespace fodr::cli {
namespace {

constexpr int kConnectTimeoutMS = 10000;

bool IsLoopback(const std::string &host)
{
    return host.empty() || host == "localhost" || host == "::1" || host.starts_with("127.");
}

// Null after a complaint.
std::unique_ptr<platform::ByteStream> OpenStream(const AgentCommandWords &words, const std::string &token)
{
    std::string error;
    std::unique_ptr<platform::ByteStream> stream;
    if (words.stdio) {
        stream = platform::OpenStandardStream(&error);
    } else {
        const std::string &text = words.listen ? *words.listen : *words.connect;
        const auto place = ParseHostAndPort(text, words.listen.has_value());
        if (!place) {
            Complain("\"" + text + "\" is not " + (words.listen ? "[ADDRESS:]PORT" : "HOST:PORT"));
            return nullptr;
        }
        if (words.connect) {
            stream = platform::ConnectTcp(place->host, place->port, kConnectTimeoutMS, &error);
        } else if (!IsLoopback(place->host) && token.empty()) {
            error = "anybody could serve the mount: agree on a token with --token-file or FODR_TOKEN";
        } else if (const auto listener = platform::ListenTcp(place->host.empty() ? "127.0.0.1" : place->host,
                                                             place->port, &error)) {
            stream = listener->Accept();
        }
    }
    if (!stream)
        Complain("no connection to a host: " + error);
    return stream;
}

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
    // With a share on this machine the host has looked at the mount point, and may have made it, already.
    const auto mountPoint = MountPoint::Prepare(words.mount, &problem);
    if (!mountPoint) {
        Complain(problem);
        return EXIT_MOUNT_POINT;
    }
    options.mountPoint = mountPoint->Path();
    auto stream = OpenStream(words, token);
    if (!stream)
        return EXIT_LOST;
    return agent::RunAgent(std::move(stream), options);
}

} // namespace fodr::cli
