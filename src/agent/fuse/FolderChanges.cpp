#include "agent/fuse/FolderChanges.h"

#include <algorithm>
#include <cstdlib>

namespace fodr::agent {
namespace {

using Kind = FolderEvent::Kind;

// Times that are apart by so much weren't set by a write.
constexpr int64_t kSetOnPurpose = 10'000'000; // one second

bool SameFile(const FileFacts &one, const FileFacts &other)
{
    return one.id == other.id && KindOf(one) == KindOf(other);
}

bool SameRights(const FileFacts &one, const FileFacts &other)
{
    return one.mode == other.mode && one.owner == other.owner && one.group == other.group &&
           one.attributes == other.attributes;
}

} // namespace

void FolderChanges::AddChangeOf(const NodePtr &folder, const std::string &name, const FileFacts &before,
                                const FileFacts &after)
{
    // What happens in a folder below is told there.
    const bool ofBytes = KindOf(after) == NodeKind::File;
    const bool otherTime = ofBytes && before.lastWriteTime != after.lastWriteTime;
    const bool otherSize = ofBytes && before.endOfFile != after.endOfFile;
    const bool setTime = otherTime && !otherSize && after.changeTime != 0 &&
                         std::llabs(after.changeTime - after.lastWriteTime) > kSetOnPurpose;
    if (otherSize || (otherTime && !setTime))
        told.push_back({.kind = Kind::Changed, .folder = folder, .name = name, .facts = after});
    if (setTime || !SameRights(before, after))
        told.push_back({.kind = Kind::Touched, .folder = folder, .name = name, .facts = after});
}

void FolderChanges::Compare(const NodePtr &folder, const FolderEntries &before, const FolderEntries &after,
                            const Test &isOwn, const Test &isOwnContent, size_t most)
{
    const size_t goneBefore = gone.size(), comeBefore = come.size(), toldBefore = told.size();
    for (const auto &[name, facts] : before) {
        const auto now = after.find(name);
        const bool stays = now != after.end() && SameFile(facts, now->second);
        if (stays && isOwnContent(name))
            continue;
        if (stays)
            AddChangeOf(folder, name, facts, now->second);
        else if (!isOwn(name))
            gone.push_back({.folder = folder, .text = name, .facts = facts});
    }
    for (const auto &[name, facts] : after) {
        const auto then = before.find(name);
        if ((then == before.end() || !SameFile(facts, then->second)) && !isOwn(name))
            come.push_back({.folder = folder, .text = name, .facts = facts});
    }
    if (gone.size() - goneBefore + come.size() - comeBefore + told.size() - toldBefore <= most)
        return;
    gone.resize(goneBefore);
    come.resize(comeBefore);
    told.resize(toldBefore);
    told.push_back({.kind = Kind::Many, .folder = folder, .name = {}});
}

void FolderChanges::AddMany(const NodePtr &folder)
{
    told.push_back({.kind = Kind::Many, .folder = folder, .name = {}});
}

// A name that came and went again between two tellings isn't told, nor one that went and came back: it would
// be taken for both ends of a move.
void FolderChanges::DropPassing()
{
    std::unordered_multimap<uint64_t, Name *> byId;
    for (Name &left : gone)
        byId.emplace(left.facts.id, &left);
    for (Name &arrived : come) {
        const auto [first, last] = byId.equal_range(arrived.facts.id);
        const auto same = std::find_if(first, last, [&arrived](const auto &left) {
            const Name &name = *left.second;
            return name.folder == arrived.folder && name.text == arrived.text &&
                   KindOf(name.facts) == KindOf(arrived.facts);
        });
        if (arrived.facts.id == 0 || same == last)
            continue;
        arrived.done = same->second->done = true;
        byId.erase(same);
    }
    for (auto *names : {&gone, &come})
        std::erase_if(*names, [](const Name &name) { return name.done; });
}

void FolderChanges::Pair()
{
    std::unordered_multimap<uint64_t, Name *> byId;
    for (size_t i = 0; i < gone.size(); ++i) {
        goneNames.emplace(gone[i].text, i);
        if (gone[i].facts.id != 0)
            byId.emplace(gone[i].facts.id, &gone[i]);
    }
    for (Name &arrived : come) {
        const auto [first, last] = byId.equal_range(arrived.facts.id);
        auto best = last;
        for (auto at = first; at != last; ++at) {
            if (KindOf(at->second->facts) == KindOf(arrived.facts) &&
                (best == last || at->second->folder == arrived.folder))
                best = at;
        }
        if (best == last)
            continue;
        arrived.other = best->second;
        best->second->other = &arrived;
        byId.erase(best);
    }
}

FolderChanges::Name *FolderChanges::GoneAt(const Name &name)
{
    const auto [first, last] = goneNames.equal_range(name.text);
    for (auto at = first; at != last; ++at) {
        if (gone[at->second].folder == name.folder)
            return &gone[at->second];
    }
    return nullptr;
}

// A file that moves to the name of another that moves comes after that. Those that wait for one another have
// changed places: each replaces the other.
void FolderChanges::TellMoves(std::vector<FolderEvent> *events)
{
    for (bool progress = true; progress;) {
        progress = false;
        for (Name &arrived : come) {
            Name *const there = arrived.other && !arrived.done ? GoneAt(arrived) : nullptr;
            if (!arrived.other || arrived.done || (there && there->other && !there->done))
                continue;
            progress = true;
            Name &left = *arrived.other;
            const bool removesFirst = there && !there->done && KindOf(there->facts) == NodeKind::Directory;
            if (removesFirst)
                events->push_back({.kind = Kind::Removed,
                                   .folder = there->folder,
                                   .name = there->text,
                                   .facts = there->facts});
            FolderEvent moved = {.kind = Kind::Moved,
                                 .folder = left.folder,
                                 .name = left.text,
                                 .facts = arrived.facts,
                                 .newFolder = arrived.folder,
                                 .newName = arrived.text};
            if (there && !there->done && !removesFirst) {
                moved.overwrites = true;
                moved.former = there->facts;
            }
            if (there)
                there->done = true;
            left.done = arrived.done = true;
            events->push_back(std::move(moved));
            AddChangeOf(arrived.folder, arrived.text, left.facts, arrived.facts);
        }
    }
}

std::vector<FolderEvent> FolderChanges::Take()
{
    std::vector<FolderEvent> events;
    DropPassing();
    Pair();
    TellMoves(&events);
    std::vector<FolderEvent> made;
    for (Name &arrived : come) {
        if (arrived.done)
            continue;
        Name *const there = GoneAt(arrived);
        FolderEvent event = {
            .kind = Kind::Made, .folder = arrived.folder, .name = arrived.text, .facts = arrived.facts};
        if (there && !there->done && KindOf(there->facts) == KindOf(arrived.facts) &&
            KindOf(arrived.facts) != NodeKind::Directory) {
            event.kind = Kind::Replaced;
            event.former = there->facts;
            there->done = true;
        }
        made.push_back(std::move(event));
    }
    for (Name &left : gone) {
        if (!left.done)
            events.push_back(
                {.kind = Kind::Removed, .folder = left.folder, .name = left.text, .facts = left.facts});
    }
    for (auto *rest : {&made, &told})
        events.insert(events.end(), std::make_move_iterator(rest->begin()),
                      std::make_move_iterator(rest->end()));
    gone.clear();
    come.clear();
    told.clear();
    goneNames.clear();
    return events;
}

} // namespace fodr::agent
