#include "agent/fuse/RecentNames.h"

#include <algorithm>
#include <utility>

namespace fodr::agent {
namespace {

constexpr unsigned kWorthAsking = 4; // lookups
constexpr int kLongestPause = 64;    // spans

} // namespace

RecentNames::ToldPtr RecentNames::Recall(Clock::time_point now, Clock::duration span, bool *ask)
{
    const bool welcome = std::exchange(*ask, false);
    ToldPtr old; // let go outside the lock
    const MutexLock held(lock);
    if (told && now - told->asked < span)
        return told;
    old = std::move(told);
    const bool often = now - lastLookup < span;
    lastLookup = now;
    const bool worth = uses >= kWorthAsking; // the last time
    *ask = welcome && often && !asking && now - lastAsked >= (worth ? span : pause);
    if (*ask) {
        pause = worth ? span : std::min(2 * std::max(pause, span), kLongestPause * span);
        uses = 0;
        asking = true;
        lastAsked = now;
    }
    return nullptr;
}

void RecentNames::Answered(Clock::time_point asked, ByteSpan answer, FileIds ids)
{
    auto names = std::make_shared<Told>();
    names->asked = asked;
    DirectoryReader reader(answer, ids);
    std::u16string name;
    for (DirectoryReader::Entry entry; reader.Next(&entry);) {
        entry.CopyName(&name);
        names->names.emplace(name, entry.facts);
    }
    const MutexLock held(lock);
    asking = false;
    if (asked > forgotten && !names->names.empty() && !reader.Malformed())
        told = std::move(names);
}

void RecentNames::Forget(Clock::time_point now)
{
    ToldPtr gone;
    const MutexLock held(lock);
    gone = std::move(told);
    if (gone)
        gone->forgotten = true;
    forgotten = now;
}

} // namespace fodr::agent
