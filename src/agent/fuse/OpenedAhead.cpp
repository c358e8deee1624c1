#include "agent/fuse/OpenedAhead.h"

#include <algorithm>

namespace fodr::agent {

using transport::MutexLock;

void OpenedAhead::Keep(Found found)
{
    found.until = Clock::now() + kSpan;
    const MutexLock held(lock);
    kept.push_back(std::move(found));
}

std::optional<FileFacts> OpenedAhead::Look(const NodePtr &parent, const std::string &name) const
{
    const MutexLock held(lock);
    const auto now = Clock::now();
    for (const Found &found : kept) {
        if (found.parent == parent && found.name == name && now < found.until)
            return found.facts;
    }
    return std::nullopt;
}

std::optional<OpenedAhead::Found> OpenedAhead::Take(const std::shared_ptr<RemoteShare> &share,
                                                    uint64_t fileId, uint32_t access)
{
    const MutexLock held(lock);
    for (auto found = kept.begin(); found != kept.end(); ++found) {
        if (found->share != share || found->facts.id != fileId || found->access != access)
            continue;
        Found taken = std::move(*found);
        kept.erase(found);
        return taken;
    }
    return std::nullopt;
}

void OpenedAhead::Purge(bool all)
{
    std::vector<Found> over;
    {
        const MutexLock held(lock);
        const auto now = Clock::now();
        const auto first = std::partition(kept.begin(), kept.end(),
                                          [&](const Found &found) { return !all && now < found.until; });
        std::move(first, kept.end(), std::back_inserter(over));
        kept.erase(first, kept.end());
    }
    for (const Found &found : over)
        found.share->Close(found.handle, [](const IoResult &) {});
}

} // namespace fodr::agent
