// `fodr agent`: its command line, the streams that it gets, and the mount point that it runs the agent on.
#include "agent/Agent.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/MountFolder.h"
#include "cli/Words.h"
#include "lib/misc/Mutex.h"
#include "lib/unicode/ForeignText.h"
#include "platform/Volumes.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <chrono>
#include <string_view>
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
            const MutexLock held(lock);
            const auto end = std::chrono::steady_clock::now() + pause;
            while (!stopped && wakeup.wait_until(lock, end) != std::cv_status::timeout) {
            }
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
        const MutexLock held(lock);
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
    Mutex lock;
    Condition wakeup;
    bool stopped GUARDED_BY(lock) = false;
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
    const auto mountPoint = MountFolder::Prepare(words.mount, &problem);
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

namespace {

constexpr char kRules[] = "RULE[;RULE...]";
constexpr unsigned kReadOnlyPermission = 1;

bool IsReadOnly(unsigned permission)
{
    return permission == kReadOnlyPermission || permission == 2;
}

agent::LinkView LinksOf(const std::string &word)
{
    if (word == "follow")
        return agent::LinkView::Follow;
    return word == "hide" ? agent::LinkView::Hide : agent::LinkView::Show;
}

agent::SideChannel SideChannelOf(const std::string &word)
{
    if (word == "none")
        return agent::SideChannel::None;
    return word == "tcp" ? agent::SideChannel::Tcp : agent::SideChannel::LeftToThePlugin;
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

// The first rule of a list that is none; nothing when all are.
std::optional<std::string> ImproperRule(std::string_view list)
{
    for (size_t begin = 0; !list.empty() && begin <= list.size();) {
        const size_t end = std::min(list.find(kDeviceRuleSeparator, begin), list.size());
        const std::string_view rule = list.substr(begin, end - begin);
        begin = end + 1;
        std::string ids;
        if (!ParseDeviceRule(rule, ids))
            return std::string(rule);
    }
    return {};
}

std::string ProblemOf(const AgentCommandWords &words)
{
    if (words.readOnly && words.permission && !IsReadOnly(*words.permission))
        return "--read-only contradicts --permission " + std::to_string(*words.permission) +
               ": read-only is 1 or 2";
    for (const std::string *list : {&words.excludeRule, &words.includeRule}) {
        const std::string option = list == &words.excludeRule ? "--exclude" : "--include";
        if (const auto rule = ImproperRule(*list))
            return option + ": \"" + *rule + "\" is not a rule like vid-0781_pid-5567";
        if (!list->empty() && words.protocol && *words.protocol < agent::kFirstVersionWithDeviceRules)
            return option + " needs an agent of version " +
                   std::to_string(agent::kFirstVersionWithDeviceRules) + ", and --protocol makes it one of " +
                   std::to_string(*words.protocol);
    }
    return {};
}

} // namespace

void AddAgentOptions(CLI::App *app, AgentCommandWords *words)
{
    app->add_option("MNT", words->mount, "Where to mount; made if it is missing")->required();
    auto *source = app->add_option_group("Where the host is");
    source->add_flag("--stdio", words->stdio, "At standard input and output");
    source->add_option("--listen", words->listen, "It will connect to this port")
        ->type_name("[ADDRESS:]PORT");
    source->add_option("--connect", words->connect, "It listens there")->type_name("HOST:PORT");
    source->require_option(1);
    app->add_option("--layout", words->layout)->check(CLI::IsMember({"single", "folders"}));
    app->add_flag("--read-only", words->readOnly, "Nothing can be changed; shares have permission 1 or 2");
    app->add_flag("--disabled", words->disabled, "Take no shares");
    app->add_option(
           "--force", words->forced,
           "Ask for this folder of the host's machine, or *all; in front of it may stand its permission")
        ->type_name("[PERMISSION:]FOLDER")
        ->allow_extra_args(false);
    app->add_option("--permission", words->permission, "Of all shares; 1 and 2: read-only. Default: 5")
        ->check(CLI::Range(0, 255));
    app->add_flag("--only-forced", words->onlyForced, "Take no others");
    app->add_option("--protocol", words->protocol, "Be an agent of this version")->check(CLI::Range(1, 6));
    app->add_flag("--no-pre-read", words->noPreRead, "Don't ask for facts ahead of the question");
    app->add_flag("--single-entries", words->singleEntries, "Ask for listings one entry at a time");
    app->add_flag("--deny-writers", words->denyWriters,
                  "While a file is open for reading here, nobody opens it for writing; saves a question");
    app->add_flag("--drive-letters", words->driveLetters, "Take whole drives only, under their letters");
    app->add_flag("--allow-other", words->allowOther, "Let other users in");
    app->add_option("--owners", words->owners, "Of files: mine, or real: those that they have on the host")
        ->check(CLI::IsMember({"mine", "real"}));
    app->add_option("--links", words->links,
                    "Symbolic links are shown as links, or as what they lead to on the host, or not at all")
        ->check(CLI::IsMember({"show", "follow", "hide"}));
    app->add_flag("--no-events", words->noEvents,
                  "Programs here get no events (inotify) of what is changed on the host");
    app->add_option("--cache-ms", words->cacheMS, "How long names and attributes are believed");
    app->add_option("--io-timeout", words->ioTimeoutSeconds,
                    "Seconds after which a request fails; 0: never. Default: 10");
    app->add_option("--linger", words->lingerSeconds,
                    "Seconds that the mount stays without a connection, for the host to come back")
        ->type_name("SECONDS");
    app->add_option("--share-wait-ms", words->shareWaitMS,
                    "How long to wait for the first share; 0: forever");
    app->add_option("--side-channel", words->sideChannel)->check(CLI::IsMember({"none", "tcp", "plugin"}));
    app->add_option("--side-address", words->sideAddress, "Address to listen on for it (default: 127.0.0.1)");
    app->add_option("--exclude", words->excludeRule, "Take nothing that is on these USB devices")
        ->type_name(kRules);
    app->add_option("--include", words->includeRule, "Of what is on USB devices, take only that on these")
        ->type_name(kRules);
    app->add_option("--token-file", words->tokenFile, "File with the token that both ends know");
    app->footer("A RULE names USB devices by vendor and product, as vid-0781_pid-5567: four hexadecimal "
                "digits each,\n"
                "any of which may be a * instead. What is on no USB device is taken whatever the rules say.");
}

bool AgentOptionsFrom(const AgentCommandWords &words, agent::AgentOptions *filled, std::string *problem)
{
    agent::AgentOptions &options = *filled;
    options.layout = words.layout == "folders" ? agent::MountLayout::Folders : agent::MountLayout::Single;
    options.readOnly = words.readOnly;
    options.allowOther = words.allowOther;
    options.cacheMS = words.cacheMS.value_or(options.cacheMS);
    options.shareWaitMS = words.shareWaitMS.value_or(options.shareWaitMS);
    agent::ClientOptions &client = options.client;
    client.preRead = !words.noPreRead;
    client.multiEntryDirectoryQuery = !words.singleEntries;
    client.version = static_cast<uint16_t>(words.protocol.value_or(client.version));
    options.lingerSeconds = words.lingerSeconds.value_or(0);
    options.ownProcess = words.stdio;
    options.denyWriters = words.denyWriters;
    options.events = !words.noEvents;
    options.realOwners = words.owners == "real";
    client.links = LinksOf(words.links);
    client.driveLetterMapping = words.driveLetters;
    if (!words.sideAddress.empty())
        client.sideChannelAddress = words.sideAddress;
    client.ioTimeoutSeconds = words.ioTimeoutSeconds.value_or(client.ioTimeoutSeconds);
    client.sideChannel = SideChannelOf(words.sideChannel);
    agent::PolicyOptions &policy = client.policy;
    policy.enabled = !words.disabled;
    policy.sharedByAgent = words.onlyForced;
    policy.defaultPermission = static_cast<uint8_t>(
        words.permission.value_or(words.readOnly ? kReadOnlyPermission : policy.defaultPermission));
    for (const std::string &folder : words.forced)
        policy.folders.push_back(ForcedFolder(folder));
    policy.excludeRule = words.excludeRule;
    policy.includeRule = words.includeRule;
    *problem = ProblemOf(words);
    return problem->empty();
}

} // namespace fodr::cli
