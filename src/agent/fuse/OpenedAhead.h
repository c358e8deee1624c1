// Files that an open came upon in place of the one that it meant, since the other side had put them under its
// name. The kernel is told to look again, and gets just these at its second try: who replaces a file all the
// time can't keep others from opening it. Any thread; handles are closed outside the lock.
#pragma once

#include "agent/fuse/Node.h"

#include <optional>

namespace fodr::agent {

class OpenedAhead {
public:
    using Clock = Node::Clock;
    static constexpr auto kSpan = std::chrono::milliseconds(100);

    struct Found {
        NodePtr parent;
        std::string name;
        std::shared_ptr<RemoteShare> share;
        uint32_t handle = 0;
        uint32_t access = 0; // the rights that it was opened with
        FileFacts facts;
        Clock::time_point until{};
    };

    // Takes the handle over.
    void Keep(Found found);
    // What the name led to a moment ago.
    std::optional<FileFacts> Look(const NodePtr &parent, const std::string &name) const;
    // The handle of the file, if one with these rights is there: it is the caller's then.
    std::optional<Found> Take(const std::shared_ptr<RemoteShare> &share, uint64_t fileId, uint32_t access);
    // Closes what nobody came for; all of it, when `all` is set.
    void Purge(bool all);

private:
    mutable transport::Mutex lock;
    std::vector<Found> kept GUARDED_BY(lock);
};

} // namespace fodr::agent
