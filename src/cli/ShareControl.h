// What other commands ask of a running share: `fodr add`, `remove`, `list`, `status` and `traffic`.
#pragma once

#include "cli/ShareOptions.h"
#include "host/CallGate.h"
#include "host/ControlServer.h"
#include "host/FolderShares.h"
#include "lib/misc/Mutex.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace fodr::cli {

// The run that is asked. Called on its thread, but for Post.
class IShareRun {
public:
    virtual void Post(host::EventQueue::Event event) = 0;
    virtual const ShareOptions &Options() const = 0;
    virtual host::FolderShares &Shares() = 0;
    // The mount, with its machine; empty until it is mounted.
    virtual std::string Place() const = 0;
    // Why a folder can't be shared with a mount where it is; empty when it can.
    virtual std::string ConflictWith(const std::string &path) const = 0;
    virtual bool AllowFolders(const std::vector<std::string> &folders) = 0;
    virtual std::vector<host::Words> StatusRows() const = 0;
    virtual std::vector<host::Words> TrafficRows() const = 0;
    // Has AnswerOverdue called again by then.
    virtual void WakeWithin(std::chrono::milliseconds time) = 0;

protected:
    ~IShareRun() = default;
};

struct ShownPath {
    std::string path;  // here
    std::string place; // over there; empty until it is mounted
};
// What there is to see of a share: its folder, or the files of it that are sent.
std::vector<ShownPath> ShownPaths(const host::FolderShare &share, const ShareOptions &options,
                                  const std::string &mount);

class ShareControl {
public:
    explicit ShareControl(IShareRun *asked) : run(asked) {}

    // Takes requests at the socket in the run's folder. False, with a few words in `*problem`, if it can't.
    bool Start(const std::string &folder, std::string *problem);
    // No request is answered any more.
    void End();

    // To whoever waits for this share, once it is known what has become of it.
    void AnswerPending(const host::FolderShare &share);
    void AnswerOverdue();

private:
    using Clock = std::chrono::steady_clock;
    using Answer = std::function<void(const host::ControlReply &)>;
    struct PendingReply {
        std::string cookie;
        Clock::time_point deadline;
        Answer answer;
    };

    host::ControlReply HandleControl(const host::Words &request);
    void RunControl(const host::Words &request, Answer answer);
    void ControlAdd(const host::Words &request, Answer answer);
    host::ControlReply ControlRemove(const std::string &which);
    host::ControlReply ControlList() const;
    host::ControlReply ControlStatus() const;

    IShareRun *const run;
    std::unique_ptr<host::ControlServer> server;
    std::vector<PendingReply> pendingReplies;
    // Whoever waits for a reply may do so while this ends, so it is shared.
    struct Replies {
        Mutex lock;
        Condition changed; // a reply has come, or none comes any more
        bool over GUARDED_BY(lock) = false;
    };
    const std::shared_ptr<Replies> replies = std::make_shared<Replies>();
};

} // namespace fodr::cli
