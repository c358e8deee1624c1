#include "agent/fuse/OpenedAhead.h"

namespace fodr::agent {

OpenedAhead::Handle::~Handle()
{
    share->Close(fileId, [](const IoResult &) {});
}

void OpenedAhead::Keep(Found found)
{
    found.until = Clock::now() + kSpan;
    const MutexLock held(lock);
    kept.push_back(std::move(found));
}

std::optional<FileFacts> OpenedAhead::Look(int caller, const NodePtr &parent, const std::string &name)
{
    const MutexLock held(lock);
    const auto now = Clock::now();
    for (auto found = kept.rbegin(); found != kept.rend(); ++found) {
        if (found->caller == caller && found->parent == parent && found->name == name && now < found->until &&
            !found->shown) {
            found->shown = true;
            return found->facts;
        }
    }
    return std::nullopt;
}

std::optional<OpenedAhead::Found> OpenedAhead::Take(int caller, const std::shared_ptr<RemoteShare> &share,
                                                    uint64_t fileId, uint32_t access)
{
    const MutexLock held(lock);
    for (auto found = kept.begin(); found != kept.end(); ++found) {
        if (found->caller != caller || found->handle->share != share || found->facts.id != fileId ||
            found->access != access)
            continue;
        Found taken = std::move(*found);
        kept.erase(found);
        return taken;
    }
    return std::nullopt;
}

void OpenedAhead::Purge(bool all)
{
    std::vector<Found> over; // let go outside the lock
    const MutexLock held(lock);
    const auto now = Clock::now();
    for (auto found = kept.begin(); found != kept.end();) {
        if (!all && now < found->until) {
            ++found;
            continue;
        }
        over.push_back(std::move(*found));
        found = kept.erase(found);
    }
}

} // namespace fodr::agent
