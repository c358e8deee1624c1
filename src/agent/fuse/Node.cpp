#include "agent/fuse/Node.h"

#include "agent/fuse/DirectoryListing.h"

#include <algorithm>
#include <sys/stat.h>
#include <vector>

namespace fodr::agent {

NodeKind KindOf(const FileFacts &facts)
{
    if (facts.IsSymbolicLink() && facts.id != 0)
        return NodeKind::Link;
    if (facts.IsDirectory())
        return NodeKind::Directory;
    return facts.mode == 0 || S_ISREG(facts.mode) ? NodeKind::File : NodeKind::Special;
}

RemoteFile::~RemoteFile()
{
    if (givenAway && released)
        node->opens.EndClose(); // nothing is sent
    if (givenAway)
        return;
    if (!released)
        node->opens.BeginClose();
    share->Close(fileId, [file = node](const IoResult &) { file->opens.EndClose(); });
}

void OpenState::Add(const RemoteFilePtr &file)
{
    const MutexLock held(lock);
    files.push_back(file);
}

void OpenState::Remove(const RemoteFilePtr &file)
{
    const MutexLock held(lock);
    files.erase(std::find(files.begin(), files.end(), file));
}

void OpenState::BeginClose()
{
    const MutexLock held(lock);
    ++closing;
}

void OpenState::EndClose()
{
    std::vector<Waiter> ready;
    {
        const MutexLock held(lock);
        ++closesEnded;
        if (--closing == 0)
            ready.swap(waiters);
    }
    for (Waiter &waiter : ready)
        waiter();
}

void OpenState::BeginWritableOpen()
{
    const MutexLock held(lock);
    ++opening;
}

void OpenState::EndWritableOpen()
{
    const MutexLock held(lock);
    --opening;
}

bool OpenState::MayBeWritten() const
{
    const MutexLock held(lock);
    return opening != 0 ||
           std::any_of(files.begin(), files.end(), [](const RemoteFilePtr &file) { return file->writable; });
}

RemoteFilePtr OpenState::Any(bool writable) const
{
    const MutexLock held(lock);
    for (const RemoteFilePtr &file : files) {
        if (!writable || file->writable)
            return file;
    }
    return nullptr;
}

RemoteFilePtr OpenState::AnyWith(uint32_t access) const
{
    const MutexLock held(lock);
    for (const RemoteFilePtr &file : files) {
        if (file->access == access)
            return file;
    }
    return nullptr;
}

RemoteFilePtr OpenState::AnyThatChangesBasics() const
{
    const MutexLock held(lock);
    const auto found = std::find_if(files.begin(), files.end(),
                                    [](const RemoteFilePtr &file) { return file->changesBasics; });
    return found == files.end() ? nullptr : *found;
}

bool OpenState::AnyIsCached() const
{
    const MutexLock held(lock);
    return std::any_of(files.begin(), files.end(), [](const RemoteFilePtr &file) { return !file->direct; });
}

bool OpenState::IsOpen() const
{
    const MutexLock held(lock);
    return !files.empty();
}

bool OpenState::IsClosing() const
{
    const MutexLock held(lock);
    return closing != 0;
}

uint64_t OpenState::ClosesEnded() const
{
    const MutexLock held(lock);
    return closesEnded;
}

void OpenState::WhenNoneClosing(Waiter waiter)
{
    {
        const MutexLock held(lock);
        if (closing != 0) {
            waiters.push_back(std::move(waiter));
            return;
        }
    }
    waiter();
}

void OpenState::SetDeletion(uint32_t deletingFileId)
{
    const MutexLock held(lock);
    deletion = deletingFileId;
}

bool OpenState::IsDeleted() const
{
    const MutexLock held(lock);
    return deletion != 0;
}

uint32_t OpenState::TakeDeletion()
{
    const MutexLock held(lock);
    return files.empty() ? std::exchange(deletion, 0) : 0;
}

bool Node::NoteFacts(const FileFacts &seen)
{
    std::shared_ptr<WriteBehind> read;
    bool changed;
    {
        const MutexLock held(factsLock);
        changed = factsKnown && !facts.SameContent(seen);
        if (changed)
            read = writes;
        facts = seen;
        factsKnown = true;
        openedAt = {};
    }
    if (read)
        read->DataChanged();
    return changed;
}

void Node::NoteFactsOfOpen(const FileFacts &seen)
{
    NoteFacts(seen);
    const MutexLock held(factsLock);
    openedAt = Clock::now();
}

bool Node::TakeFactsOfOpen(Clock::duration span, FileFacts *seen, Clock::time_point *opened)
{
    const MutexLock held(factsLock);
    const Clock::time_point at = std::exchange(openedAt, Clock::time_point());
    if (at == Clock::time_point() || Clock::now() - at >= span || ChangedSince(at))
        return false;
    *seen = facts;
    *opened = at;
    return true;
}

void Node::DropFactsOfOpen()
{
    const MutexLock held(factsLock);
    openedAt = {};
}

bool Node::LastFacts(FileFacts *last) const
{
    const MutexLock held(factsLock);
    *last = facts;
    return factsKnown;
}

void Node::NoteTarget(const std::string &linkTarget)
{
    const MutexLock held(factsLock);
    target = linkTarget;
}

std::string Node::Target() const
{
    const MutexLock held(factsLock);
    return target;
}

void Node::NoteListing(const std::shared_ptr<DirectoryListing> &listing)
{
    const MutexLock held(factsLock);
    std::erase_if(listings, [](const auto &known) { return known.expired(); });
    listings.push_back(listing);
}

std::shared_ptr<DirectoryListing> Node::AnyListing() const
{
    const MutexLock held(factsLock);
    for (const auto &known : listings) {
        if (std::shared_ptr<DirectoryListing> listing = known.lock(); listing && listing->IsOpen())
            return listing;
    }
    return nullptr;
}

void Node::EndListings()
{
    std::vector<std::weak_ptr<DirectoryListing>> ended;
    {
        const MutexLock held(factsLock);
        ended.swap(listings);
    }
    for (const auto &known : ended) {
        if (const std::shared_ptr<DirectoryListing> listing = known.lock())
            listing->EndUnread();
    }
}

std::shared_ptr<WriteBehind> Node::Writes(TransferWindow &window)
{
    const MutexLock held(factsLock);
    if (!writes)
        writes = std::make_shared<WriteBehind>(window);
    return writes;
}

std::shared_ptr<WriteBehind> Node::WritesIfAny() const
{
    const MutexLock held(factsLock);
    return writes;
}

bool NameGate::Admit(Entry entry)
{
    if (alone || (entry == Entry::Alone && inside != 0))
        return false;
    ++inside;
    alone = entry == Entry::Alone;
    return true;
}

bool NameGate::TryEnter(Entry entry)
{
    const MutexLock held(lock);
    return waiting.empty() && Admit(entry);
}

void NameGate::Enter(Entry entry, Waiter waiter)
{
    {
        const MutexLock held(lock);
        if (!waiting.empty() || !Admit(entry)) {
            waiting.push_back({entry, std::move(waiter)});
            return;
        }
    }
    waiter();
}

void NameGate::Leave(Entry entry)
{
    std::vector<Waiter> admitted;
    {
        const MutexLock held(lock);
        --inside;
        alone = alone && entry != Entry::Alone;
        while (!waiting.empty() && Admit(waiting.front().entry)) {
            admitted.push_back(std::move(waiting.front().waiter));
            waiting.pop_front();
        }
    }
    for (Waiter &waiter : admitted)
        waiter();
}

} // namespace fodr::agent
