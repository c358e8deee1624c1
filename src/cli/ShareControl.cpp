#include "cli/ShareControl.h"

#include "cli/Commands.h"
#include "cli/Console.h"

#include <algorithm>
#include <filesystem>
#include <optional>

namespace fodr::cli {
namespace {

using namespace std::chrono_literals;
using host::ControlReply;
using host::FolderShare;
using host::ShareState;
using host::Words;

constexpr auto kAddLimit = 30s;

const char *StateName(ShareState state)
{
    switch (state) {
    case ShareState::Ready:
        return "ready";
    case ShareState::Refused:
        return "refused";
    default:
        return "waiting";
    }
}

ControlReply Refusal(int code, const std::string &sentence)
{
    return {code, sentence, {}};
}

} // namespace

std::vector<ShownPath> ShownPaths(const FolderShare &share, const ShareOptions &options,
                                  const std::string &mount)
{
    const std::vector<std::string> paths = WantedFolder::PathsBelow(share.path, share.files);
    std::vector<std::string> places(paths.size());
    if (!mount.empty())
        places =
            WantedFolder::PathsBelow(mount + (options.folderLayout ? "/" + share.name : ""), share.files);
    std::vector<ShownPath> shown;
    for (size_t i = 0; i < paths.size(); ++i)
        shown.push_back({paths[i], places[i]});
    return shown;
}

bool ShareControl::Start(const std::string &folder, std::string *problem)
{
    server = host::ControlServer::Start(
        host::ControlSocketOf(folder), [this](const Words &request) { return HandleControl(request); },
        problem);
    return server != nullptr;
}

void ShareControl::End()
{
    {
        const MutexLock held(replies->lock);
        replies->over = true;
        replies->changed.notify_all();
    }
    server.reset();
}

// On a thread of the control connection: passes the request to ours and waits.
ControlReply ShareControl::HandleControl(const Words &request)
{
    auto reply = std::make_shared<std::optional<ControlReply>>(); // under the lock of replies
    run->Post([this, request, reply] {
        RunControl(request, [desk = replies, reply](const ControlReply &made) {
            const MutexLock held(desk->lock);
            *reply = made;
            desk->changed.notify_all();
        });
    });
    const MutexLock held(replies->lock);
    while (!*reply) {
        if (replies->over)
            return Refusal(EXIT_NOT_RUNNING, "the share is ending");
        replies->changed.wait(replies->lock);
    }
    return **reply;
}

void ShareControl::RunControl(const Words &request, Answer answer)
{
    const std::string &verb = request.front();
    if (verb == "add" && request.size() == 3)
        ControlAdd(request, std::move(answer));
    else if (verb == "remove" && request.size() == 2)
        answer(ControlRemove(request[1]));
    else if (verb == "list" && request.size() == 1)
        answer(ControlList());
    else if (verb == "status" && request.size() == 1)
        answer(ControlStatus());
    else if (verb == "traffic" && request.size() == 1)
        answer({EXIT_DONE, "", run->TrafficRows()});
    else
        answer(Refusal(EXIT_USAGE, "the running fodr doesn't know this request: is it of another version?"));
}

void ShareControl::ControlAdd(const Words &request, Answer answer)
{
    const std::string &path = request[1];
    std::error_code error;
    if (!run->Options().folders.front().files.empty())
        return answer(
            Refusal(EXIT_REFUSED, "this run sends the files that it was given: use fodr share for folders"));
    if (run->Options().fixed)
        return answer(Refusal(EXIT_REFUSED,
                              "nothing can be added to this run, which is a fixed one: start it with "
                              "--no-fixed"));
    if (!run->Options().folderLayout)
        return answer(Refusal(EXIT_REFUSED,
                              "this share shows its one folder as the mount itself: start it with --layout "
                              "folders to add more"));
    if (!std::filesystem::is_directory(path, error))
        return answer(Refusal(EXIT_FOLDER, "\"" + path + "\" is not a folder"));
    if (const std::string conflict = run->ConflictWith(path); !conflict.empty())
        return answer(Refusal(EXIT_MOUNT_POINT, conflict));
    std::vector<std::string> allowed = run->Shares().OfferedForms();
    allowed.push_back(host::FolderShares::AskedForm(path));
    if (!run->AllowFolders(allowed))
        return answer(Refusal(EXIT_OTHER, "the settings of the running share can't be written"));
    const FolderShare *share = run->Shares().Add(path, host::FolderShares::NameFor(request[2]));
    if (share == nullptr)
        return answer(Refusal(EXIT_REFUSED, "\"" + path + "\" is shared already"));
    pendingReplies.push_back({share->cookie, Clock::now() + kAddLimit, std::move(answer)});
    AnswerPending(*share);
    run->WakeWithin(kAddLimit);
}

void ShareControl::AnswerPending(const FolderShare &share)
{
    const auto waiting =
        std::find_if(pendingReplies.begin(), pendingReplies.end(),
                     [&](const PendingReply &reply) { return reply.cookie == share.cookie; });
    if (waiting == pendingReplies.end() || share.state == ShareState::Waiting ||
        share.state == ShareState::Asked)
        return;
    const auto answer = std::move(waiting->answer);
    pendingReplies.erase(waiting);
    if (share.state == ShareState::Ready) {
        answer({EXIT_DONE, "", {{share.path, share.name, run->Place() + "/" + share.name}}});
        return;
    }
    answer(Refusal(EXIT_REFUSED, "\"" + share.path + "\" can't be shared: " + share.problem));
    run->Post([this, cookie = share.cookie] {
        if (const FolderShare *refused = run->Shares().FindCookie(cookie))
            run->Shares().Remove(std::string(refused->path));
        run->AllowFolders(run->Shares().OfferedForms());
    });
}

void ShareControl::AnswerOverdue()
{
    const auto now = Clock::now();
    for (size_t i = pendingReplies.size(); i-- > 0;) {
        if (pendingReplies[i].deadline > now)
            continue;
        pendingReplies[i].answer({EXIT_DONE, "it will be shared as soon as the other side answers", {}});
        pendingReplies.erase(pendingReplies.begin() + static_cast<ptrdiff_t>(i));
    }
}

ControlReply ShareControl::ControlRemove(const std::string &which)
{
    if (!run->Shares().Remove(which))
        return Refusal(EXIT_FOLDER, "\"" + which + "\" is not shared: see fodr list");
    run->AllowFolders(run->Shares().OfferedForms());
    return {};
}

ControlReply ShareControl::ControlList() const
{
    ControlReply reply;
    for (const FolderShare &share : run->Shares().All()) {
        for (const ShownPath &one : ShownPaths(share, run->Options(), run->Place()))
            reply.rows.push_back({one.path, share.name, StateName(share.state), share.problem, one.place});
    }
    return reply;
}

ControlReply ShareControl::ControlStatus() const
{
    ControlReply reply = ControlList();
    const std::vector<Words> rows = run->StatusRows();
    reply.rows.insert(reply.rows.begin(), rows.begin(), rows.end());
    return reply;
}

} // namespace fodr::cli
