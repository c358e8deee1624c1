// ShareSession: what it tells about its shares, and what other commands ask of a running one.
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/ShareSession.h"
#include "lib/unicode/ForeignText.h"
#include "platform/Process.h"

#include <algorithm>
#include <filesystem>
#include <future>

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

// On a thread of the control connection: passes the request to ours and waits.
ControlReply ShareSession::HandleControl(const Words &request)
{
    auto reply = std::make_shared<std::promise<ControlReply>>();
    std::future<ControlReply> future = reply->get_future();
    queue.Post([this, request, reply] {
        RunControl(request, [reply](const ControlReply &made) { reply->set_value(made); });
    });
    while (future.wait_for(100ms) != std::future_status::ready) {
        if (over)
            return Refusal(EXIT_NOT_RUNNING, "the share is ending");
    }
    return future.get();
}

void ShareSession::RunControl(const Words &request, std::function<void(const ControlReply &)> answer)
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
        answer(ControlTraffic());
    else
        answer(Refusal(EXIT_USAGE, "the running fodr doesn't know this request: is it of another version?"));
}

void ShareSession::ControlAdd(const Words &request, std::function<void(const ControlReply &)> answer)
{
    const std::string &path = request[1];
    std::error_code error;
    if (!options.folders.front().files.empty()) {
        answer(
            Refusal(EXIT_REFUSED, "this run sends the files that it was given: use fodr share for folders"));
        return;
    }
    if (options.fixed) {
        answer(Refusal(EXIT_REFUSED, "nothing can be added to this run, which is a fixed one: start it with "
                                     "--no-fixed"));
        return;
    }
    if (!options.folderLayout) {
        answer(Refusal(EXIT_REFUSED,
                       "this share shows its one folder as the mount itself: start it with --layout "
                       "folders to add more"));
        return;
    }
    if (!std::filesystem::is_directory(path, error)) {
        answer(Refusal(EXIT_FOLDER, "\"" + path + "\" is not a folder"));
        return;
    }
    if (const std::string conflict = mountPoint ? mountPoint->ConflictWith(path) : std::string();
        !conflict.empty()) {
        answer(Refusal(EXIT_MOUNT_POINT, conflict));
        return;
    }
    std::vector<std::string> allowed = shares->OfferedForms();
    allowed.push_back(host::FolderShares::AskedForm(path));
    if (!AllowFolders(allowed)) {
        answer(Refusal(EXIT_OTHER, "the settings of the running share can't be written"));
        return;
    }
    const FolderShare *share = shares->Add(path, host::FolderShares::NameFor(request[2]));
    if (share == nullptr) {
        answer(Refusal(EXIT_REFUSED, "\"" + path + "\" is shared already"));
        return;
    }
    pendingReplies.push_back({share->cookie, Clock::now() + kAddLimit, std::move(answer)});
    AnswerPending(*share);
    if (!timer)
        SetTimer(kAddLimit);
}

// To whoever waits for this share, once it is known what has become of it.
void ShareSession::AnswerPending(const FolderShare &share)
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
        answer({EXIT_DONE, "", {{share.path, share.name, MountedAt() + "/" + share.name}}});
        return;
    }
    answer(Refusal(EXIT_REFUSED, "\"" + share.path + "\" can't be shared: " + share.problem));
    queue.Post([this, cookie = share.cookie] {
        if (const FolderShare *refused = shares->FindCookie(cookie))
            shares->Remove(std::string(refused->path));
        AllowFolders(shares->OfferedForms());
    });
}

void ShareSession::AnswerOverdue()
{
    const auto now = Clock::now();
    for (size_t i = pendingReplies.size(); i-- > 0;) {
        if (pendingReplies[i].deadline > now)
            continue;
        pendingReplies[i].answer({EXIT_DONE, "it will be shared as soon as the other side answers", {}});
        pendingReplies.erase(pendingReplies.begin() + static_cast<ptrdiff_t>(i));
    }
}

ControlReply ShareSession::ControlRemove(const std::string &which)
{
    if (!shares->Remove(which))
        return Refusal(EXIT_FOLDER, "\"" + which + "\" is not shared: see fodr list");
    AllowFolders(shares->OfferedForms());
    return {};
}

std::vector<ShareSession::ShownPath> ShareSession::Shown(const FolderShare &share) const
{
    const std::vector<std::string> paths = SharedFolder::PathsBelow(share.path, share.files);
    std::vector<std::string> places(paths.size());
    if (!mounted.empty())
        places = SharedFolder::PathsBelow(MountedAt() + (options.folderLayout ? "/" + share.name : ""),
                                          share.files);
    std::vector<ShownPath> shown;
    for (size_t i = 0; i < paths.size(); ++i)
        shown.push_back({paths[i], places[i]});
    return shown;
}

void ShareSession::SayReady() const
{
    std::vector<ShownPath> ready;
    for (const FolderShare &share : shares->All()) {
        if (share.state == ShareState::Ready) {
            for (ShownPath &one : Shown(share))
                ready.push_back(std::move(one));
        }
    }
    const bool sent = !options.folders.front().files.empty();
    Say(Escaped(ready.front().path) + (sent ? " is at " : " is mounted at ") + Escaped(ready.front().place) +
        (ready.size() > 1 ? ", and " + std::to_string(ready.size() - 1) + " more beside it" : "") +
        ". Press Ctrl-C to end.");
}

ControlReply ShareSession::ControlList() const
{
    ControlReply reply;
    for (const FolderShare &share : shares->All()) {
        for (const ShownPath &one : Shown(share))
            reply.rows.push_back({one.path, share.name, StateName(share.state), share.problem, one.place});
    }
    return reply;
}

ControlReply ShareSession::ControlStatus() const
{
    constexpr const char *kPhases[] = {"connecting", "starting", "running", "reconnecting", "ending"};
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - started).count();
    ControlReply reply = ControlList();
    reply.rows.insert(reply.rows.begin(), {{"pid", std::to_string(platform::CurrentProcessId())},
                                           {"state", kPhases[static_cast<size_t>(phase)]},
                                           {"agent", options.target.Name()},
                                           {"mount", mounted.empty() ? "" : MountedAt()},
                                           {"seconds", std::to_string(seconds)},
                                           {"reconnects", std::to_string(reconnects)},
                                           {"fixed", options.fixed ? "yes" : "no"},
                                           {"confined", confinement.State()}});
    return reply;
}

ControlReply ShareSession::ControlTraffic() const
{
    ControlReply reply;
    for (const agent::PacketTraffic::Row &row : traffic.Rows())
        reply.rows.push_back({row.kind, std::to_string(row.packets), std::to_string(row.bytes)});
    return reply;
}

} // namespace fodr::cli
