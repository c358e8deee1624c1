#include "agent/fuse/RecentNames.h"

#include <algorithm>

namespace fodr::agent {
namespace {

constexpr unsigned kWorthAsking = 4; // lookups
constexpr int kLongestPause = 64;    // spans
constexpr int kWatchedSpans = 5;

} // namespace

bool RecentNames::IsGood(Clock::time_point now, Clock::duration span, Clock::duration *age) const
{
    if (!told)
        return false;
    *age = now - told->asked;
    if (*age < span)
        return true;
    // The watch is one of many requests under way: it is surely there a while after it was sent.
    if (!watched || told->asked - firstWatched < span || *age >= kWatchedSpans * span)
        return false;
    *age = {};
    return true;
}

RecentNames::ToldPtr RecentNames::Recall(Clock::time_point now, Clock::duration span, Clock::duration *age,
                                         bool *ask)
{
    const transport::MutexLock held(lock);
    if (IsGood(now, span, age))
        return told;
    told = nullptr;
    const bool often = now - lastLookup < span;
    lastLookup = now;
    *ask = often && !asking && now - lastAsked >= pause;
    if (*ask) {
        pause = uses >= kWorthAsking ? span : std::min(2 * std::max(pause, span), kLongestPause * span);
        uses = 0;
        asking = true;
        lastAsked = now;
    }
    return nullptr;
}

void RecentNames::NoteUse()
{
    const transport::MutexLock held(lock);
    ++uses;
}

void RecentNames::Answered(Clock::time_point asked, ByteSpan answer)
{
    auto names = std::make_shared<Told>();
    names->asked = asked;
    DirectoryReader reader(answer);
    std::u16string name;
    for (DirectoryReader::Entry entry; reader.Next(&entry);) {
        entry.CopyName(&name);
        names->names.emplace(name, entry.facts);
    }
    const transport::MutexLock held(lock);
    asking = false;
    if (asked > forgotten && !names->names.empty() && !reader.Malformed())
        told = std::move(names);
}

void RecentNames::Forget(Clock::time_point now)
{
    ToldPtr gone;
    const transport::MutexLock held(lock);
    gone = std::move(told);
    forgotten = now;
}

void RecentNames::SetWatched(bool isWatched, Clock::time_point now)
{
    const transport::MutexLock held(lock);
    watched = isWatched;
    if (isWatched && firstWatched == Clock::time_point())
        firstWatched = now;
}

} // namespace fodr::agent
