// `fodr agent`: gets a stream and a mount point, and runs the agent on them.
#include "agent/Agent.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/ExitCode.h"
#include "cli/MountPoint.h"
#include "cli/Words.h"
#include "platform/Mounts.h"

#include <charconv>

namespace fodr::cli {
namespace {

constexpr int kConnectTimeoutMS = 10000;

bool IsLoopback(const std::string &host)
{
    return host.empty() || host == "localhost" || host == "::1" || host.starts_with("127.");
}

bool ChooseSideChannel(const std::string &word, agent::SideChannel *side)
{
    if (word == "none")
        *side = agent::SideChannel::None;
    else if (word == "tcp")
        *side = agent::SideChannel::Tcp;
    else
        *side = agent::SideChannel::LeftToThePlugin;
    return word == "none" || word == "tcp" || word == "plugin";
}

// "1:C:\\docs" names a permission, "C:\\docs" doesn't.
agent::PolicyFolder ForcedFolder(const std::string &word)
{
    const size_t colon = word.find(':');
    unsigned permission = 0;
    const char *end = word.data() + (colon == std::string::npos ? 0 : colon);
    const auto parsed = std::from_chars(word.data(), end, permission);
    if (end == word.data() || parsed.ec != std::errc() || parsed.ptr != end || permission > 255)
        return {0, word};
    return {static_cast<uint8_t>(permission), word.substr(colon + 1)};
}

agent::AgentOptions OptionsFrom(const AgentCommandWords &words)
{
    agent::AgentOptions options;
    options.layout = words.layout == "folders" ? agent::MountLayout::Folders : agent::MountLayout::Single;
    options.readOnly = words.readOnly;
    options.allowOther = words.allowOther;
    options.cacheMS = words.cacheMS.value_or(options.cacheMS);
    options.shareWaitMS = words.shareWaitMS.value_or(options.shareWaitMS);
    agent::ClientOptions &client = options.client;
    client.preRead = !words.noPreRead;
    client.multiEntryDirectoryQuery = !words.singleEntries;
    client.version = static_cast<uint16_t>(words.protocol.value_or(client.version));
    options.denyWriters = words.denyWriters;
    client.driveLetterMapping = words.driveLetters;
    client.sideChannelAddress = words.sideAddress;
    client.ioTimeoutSeconds = words.ioTimeoutSeconds.value_or(client.ioTimeoutSeconds);
    ChooseSideChannel(words.sideChannel, &client.sideChannel);
    agent::PolicyOptions &policy = client.policy;
    policy.enabled = !words.disabled;
    policy.sharedByAgent = words.onlyForced;
    policy.defaultPermission = static_cast<uint8_t>(words.permission.value_or(policy.defaultPermission));
    if (words.readOnly)
        policy.defaultPermission = 1;
    for (const std::string &folder : words.forced)
        policy.folders.push_back(ForcedFolder(folder));
    policy.excludeRule = words.excludeRule;
    policy.includeRule = words.includeRule;
    return options;
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
    agent::AgentOptions options = OptionsFrom(words);
    std::string problem;
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
