// `fodr share`: checks what was asked for, prepares the plug-in's settings, and runs the session.
#include "cli/AgentStarter.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/MountFolder.h"
#include "cli/PluginSettings.h"
#include "cli/ShareSession.h"
#include "cli/Words.h"
#include "host/ControlServer.h"
#include "lib/misc/Mutex.h"
#include "platform/Files.h"
#include "platform/Volumes.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace fodr::cli {
namespace {

namespace fs = std::filesystem;

int Refuse(int code, const std::string &sentence)
{
    Complain(sentence);
    return code;
}

// 0, or the exit code after a complaint.
int AddFolder(const std::string &given, const std::string &name, std::vector<WantedFolder> *folders)
{
    std::error_code error;
    const fs::path path = fs::canonical(given, error);
    if (error)
        return Refuse(EXIT_FOLDER, "\"" + given + "\" can't be shared: " + error.message());
    if (!fs::is_directory(path, error))
        return Refuse(EXIT_FOLDER, "\"" + given + "\" is not a folder: share the folder that it is in");
    fs::directory_iterator content(path, error);
    if (error)
        return Refuse(EXIT_FOLDER, "\"" + given + "\" can't be read: " + error.message());
    const auto same = [&](const WantedFolder &other) { return other.path == path.string(); };
    if (std::any_of(folders->begin(), folders->end(), same))
        return Refuse(EXIT_FOLDER, "\"" + given + "\" is named twice");
    const std::string plain = name.empty() ? path.filename().string() : name;
    folders->push_back({path.string(), host::FolderShares::NameFor(plain.empty() ? "root" : plain), {}});
    return EXIT_DONE;
}

// The file by its own name in its folder, links on the way there resolved; "." and the like under the name
// that they stand for. Empty when there is none.
fs::path Locate(const fs::path &given, std::error_code *error)
{
    fs::path path = given.has_filename() ? given : given.parent_path();
    const bool named = path.filename() != "." && path.filename() != "..";
    path = named ? fs::canonical(path.has_parent_path() ? path.parent_path() : ".", *error) / path.filename()
                 : fs::canonical(path, *error);
    return *error ? fs::path() : path;
}

// Of a path whose folder is canonical.
bool LeadsOut(const fs::path &path)
{
    std::error_code error;
    const fs::path folder = path.parent_path(), target = fs::canonical(path, error);
    return error ||
           std::mismatch(folder.begin(), folder.end(), target.begin(), target.end()).first != folder.end();
}

// A share for each folder that files are sent of, in the order in which they are first named.
int AddFile(const std::string &given, bool linksOutside, std::vector<WantedFolder> *folders)
{
    std::error_code error;
    const fs::path path = Locate(given, &error);
    const fs::file_type type = error ? fs::file_type::none : fs::status(path, error).type();
    if (error)
        return Refuse(EXIT_FOLDER, "\"" + given + "\" can't be sent: " + error.message());
    if (path.filename().empty() || (type != fs::file_type::regular && type != fs::file_type::directory))
        return Refuse(EXIT_FOLDER, "\"" + given + "\" can't be sent: it is neither a file nor a folder");
    const bool readable = type == fs::file_type::regular ? std::ifstream(path).is_open()
                                                         : (fs::directory_iterator(path, error), !error);
    if (!readable)
        return Refuse(EXIT_FOLDER, "\"" + given + "\" can't be sent: it can't be read");
    // The other side could see it, but not open it.
    if (!linksOutside && LeadsOut(path))
        return Refuse(EXIT_FOLDER, "\"" + given +
                                       "\" can't be sent: it is a link that leads out of its folder, which " +
                                       "only --links-outside allows");
    const std::string folder = path.parent_path().string();
    const std::string file = path.filename().string();
    for (WantedFolder &present : *folders) {
        if (present.path != folder)
            continue;
        if (std::find(present.files.begin(), present.files.end(), file) != present.files.end())
            return Refuse(EXIT_FOLDER, "\"" + given + "\" is named twice");
        present.files.push_back(file);
        return EXIT_DONE;
    }
    const std::string plain = path.parent_path().filename().string();
    const std::string name = host::FolderShares::NameFor(plain.empty() ? "root" : plain);
    std::string unique = name;
    const auto taken = [&](const WantedFolder &other) { return other.name == unique; };
    for (int n = 1; std::any_of(folders->begin(), folders->end(), taken); ++n)
        unique = name + "(" + std::to_string(n) + ")";
    folders->push_back({folder, unique, {file}});
    return EXIT_DONE;
}

int ChooseTarget(const ShareWords &words, AgentTarget *target)
{
    if (words.to) {
        const auto place = ParseRemotePlace(*words.to);
        if (!place)
            return Refuse(EXIT_USAGE, "--to wants USER@HOST:FOLDER, not \"" + *words.to + "\"");
        target->kind = AgentTarget::Kind::Ssh;
        target->host = place->host;
        // ssh starts commands in the home folder; a quoted "~" would be taken literally there.
        target->mountPoint = place->path.starts_with("~/") ? place->path.substr(2) : place->path;
        if (target->mountPoint.empty())
            return Refuse(EXIT_USAGE, "--to wants a folder on " + place->host + " behind the colon");
    } else if (words.tcp || words.listen) {
        const std::string &text = words.tcp ? *words.tcp : *words.listen;
        const auto place = ParseHostAndPort(text, words.listen.has_value());
        if (!place)
            return Refuse(EXIT_USAGE, (words.tcp ? "--tcp wants HOST:PORT, not \""
                                                 : "--listen wants [ADDRESS:]PORT, not \"") +
                                          text + "\"");
        target->kind = words.tcp ? AgentTarget::Kind::Connect : AgentTarget::Kind::Listen;
        target->host = place->host;
        target->port = place->port;
    } else {
        target->mountPoint = words.mount.value_or("");
        if (words.mount && words.mount->empty())
            return Refuse(EXIT_USAGE, "--mount wants a folder");
    }
    return EXIT_DONE;
}

int CheckNetwork(const ShareOptions &options)
{
    const AgentTarget &target = options.target;
    if (target.kind == AgentTarget::Kind::Listen && !target.host.empty() && options.token.empty())
        return Refuse(
            EXIT_USAGE,
            "listening on " + target.host +
                " would give the folders to anybody: agree on a token with --token-file or FODR_TOKEN");
    const std::string problem = target.kind == AgentTarget::Kind::Local ? platform::MountProblem() : "";
    return problem.empty() ? EXIT_DONE : Refuse(EXIT_NO_FUSE, problem);
}

int CheckOptions(const ShareWords &words, ShareOptions *options)
{
    if (!words.name.empty() && words.folders.size() > 1)
        return Refuse(EXIT_USAGE,
                      "--name is for one folder, and " + std::to_string(words.folders.size()) + " are named");
    for (const std::string &folder : words.folders) {
        const int code = words.sends ? AddFile(folder, words.linksOutside, &options->folders)
                                     : AddFolder(folder, words.name, &options->folders);
        if (code != EXIT_DONE)
            return code;
    }
    if (const int code = ChooseTarget(words, &options->target))
        return code;
    if (words.layout == "single" && options->folders.size() > 1)
        return Refuse(EXIT_USAGE, "--layout single is for one folder: leave it out");
    options->folderLayout = words.layout == "folders" || options->folders.size() > 1;
    options->readOnly = words.readOnly;
    options->reconnect = words.reconnect.value_or(options->target.kind == AgentTarget::Kind::Ssh);
    options->verbose = words.verbose;
    options->fixed = words.fixed.value_or(words.sends || !words.command.empty());
    options->plugin.log = words.trace ? host::PluginLog::Trace : host::PluginLog::AsSet;
    options->plugin.nameCase =
        words.nameCase == "insensitive" ? host::NameCase::Insensitive : host::NameCase::Sensitive;
    options->plugin.readOnly = words.readOnly;
    options->plugin.linksOutside = words.linksOutside;
    options->sideChannel = words.sideChannel;
    options->ioTimeoutSeconds = words.ioTimeoutSeconds;
    options->agentWords = words.agentWords;
    options->command = words.command;
    options->sshWords = SplitWords(words.sshCommand);
    options->remoteProgram = words.remoteProgram;
    if (options->sshWords.empty())
        return Refuse(EXIT_USAGE, "--ssh-command wants a program");
    if (!ReadToken(words.tokenFile, &options->token))
        return EXIT_USAGE;
    if (const int code = CheckNetwork(*options))
        return code;
    std::string problem;
    options->ownProgram = OwnProgram();
    options->pluginPath = FindPlugin(&problem);
    return options->pluginPath.empty() ? Refuse(EXIT_NO_PLUGIN, problem) : EXIT_DONE;
}

// Where an agent on this machine mounts. 0, or the exit code after a complaint.
int PrepareMount(const ShareOptions &options, std::unique_ptr<MountFolder> *mountPoint)
{
    std::string problem;
    if (options.target.kind != AgentTarget::Kind::Local)
        return EXIT_DONE;
    const std::string name = options.folders.size() == 1 ? options.folders.front().name : "shares";
    *mountPoint = options.target.mountPoint.empty()
                      ? MountFolder::PrepareDefault(name, &problem)
                      : MountFolder::Prepare(options.target.mountPoint, &problem);
    if (!*mountPoint)
        return Refuse(EXIT_MOUNT_POINT, problem);
    for (const WantedFolder &shared : options.folders) {
        for (const std::string &path : shared.Paths()) {
            problem = (*mountPoint)->ConflictWith(path);
            if (!problem.empty())
                return Refuse(EXIT_MOUNT_POINT, problem);
        }
    }
    return EXIT_DONE;
}

// Takes signals from the start on, and passes them to the session while there is one.
class SignalRelay {
public:
    SignalRelay()
    {
        platform::WatchTermination([this](platform::TerminationRequest request) {
            const MutexLock held(lock);
            if (session != nullptr)
                session->OnTermination(request);
            else
                platform::EndNow(platform::StatusOf(request));
        });
    }
    void Attach(ShareSession *running)
    {
        const MutexLock held(lock);
        session = running;
    }

private:
    Mutex lock;
    ShareSession *session GUARDED_BY(lock) = nullptr;
};

} // namespace

bool ReadToken(const std::string &file, std::string *token)
{
    if (file.empty()) {
        *token = platform::GetEnvironment("FODR_TOKEN");
    } else {
        std::ifstream stream(file);
        token->assign(std::istreambuf_iterator<char>(stream), {});
        while (!token->empty() && (token->back() == '\n' || token->back() == '\r'))
            token->pop_back();
    }
    const bool good = (file.empty() || !token->empty()) && token->size() <= transport::kMaxToken;
    if (!good)
        Complain("the token in \"" + file + "\" can't be used: it must be a file with 1 to " +
                 std::to_string(transport::kMaxToken) + " bytes of text");
    return good;
}

int RunShare(const ShareWords &words)
{
    ShareOptions options;
    std::string problem;
    if (const int code = CheckOptions(words, &options))
        return code;
    ComplainAboutStore();
    std::unique_ptr<MountFolder> mountPoint;
    if (const int code = PrepareMount(options, &mountPoint))
        return code;
    const std::string folder = host::MakeHostFolder(&problem);
    if (folder.empty())
        return Refuse(EXIT_OTHER, "the folder " + platform::RuntimeFolder() + " can't be used: " + problem);
    // From here on this process can do no more than it needs. Before it there are no other threads.
    const RunConfinement confinement = RunConfinement::Of(options, mountPoint.get());
    static SignalRelay relay; // its thread runs to the end of the process
    int code = EXIT_OTHER;
    if (options.plugin.linksOutside)
        Complain("links of the shared folders may lead anywhere on this machine");
    if (auto settings = host::PrivateSettings::Create((fs::path(folder) / "settings").string(), &problem,
                                                      options.plugin)) {
        ShareSession session(options, std::move(settings), folder, std::move(mountPoint), confinement);
        relay.Attach(&session);
        code = session.Run();
        relay.Attach(nullptr);
    } else {
        Complain("the settings for this run can't be made: " + problem);
    }
    host::RemoveHostFolder(folder);
    return code;
}

} // namespace fodr::cli
