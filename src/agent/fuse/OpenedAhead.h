// Files that an open came upon in place of the one that it meant, since the other side had put them under its
// name. The kernel is told to look again, and gets just these at its second try, which the same thread makes:
// who replaces a file all the time can't keep others from opening it. Any thread; handles are closed outside
// the lock.
#pragma once

#include "agent/fuse/Node.h"

#include <optional>

namespace fodr::agent {

class OpenedAhead {
public:
    using Clock = Node::Clock;
    static constexpr auto kSpan = std::chrono::milliseconds(400); // between the two tries of the kernel

    // Closes the file when the last who uses it has gone.
    struct Handle {
        Handle(std::shared_ptr<RemoteShare> remoteShare, uint32_t remoteFile)
            : share(std::move(remoteShare)), fileId(remoteFile)
        {}
        ~Handle();
        Handle(const Handle &) = delete;
        Handle &operator=(const Handle &) = delete;

        const std::shared_ptr<RemoteShare> share;
        const uint32_t fileId;
    };
    struct Found {
        int caller; // the thread whose open it was
        NodePtr parent;
        std::string name;
        std::shared_ptr<Handle> handle;
        uint32_t access = 0; // the rights that it was opened with
        FileFacts facts;
        Clock::time_point until{};
        bool shown = false; // to a look-up: the open that follows is to come for it
    };

    void Keep(Found found);
    // What the name was found to lead to a moment ago. Each is shown once.
    std::optional<FileFacts> Look(int caller, const NodePtr &parent, const std::string &name);
    // The file, if it is here with these rights, for the caller alone.
    std::optional<Found> Take(int caller, const std::shared_ptr<RemoteShare> &share, uint64_t fileId,
                              uint32_t access);
    // Lets go what is over; all of it, when `all` is set.
    void Purge(bool all);

private:
    mutable Mutex lock;
    std::vector<Found> kept GUARDED_BY(lock);
};

} // namespace fodr::agent
