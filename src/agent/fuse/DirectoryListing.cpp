#include "agent/fuse/DirectoryListing.h"

#include "lib/unicode/NameMapping.h"
#include "platform/NtRecords.h"

#include <algorithm>

namespace fodr::agent {

DirectoryListing::~DirectoryListing()
{
    // The last reference: nobody else looks.
    lock.lock();
    const bool open = !closed, counted = begun && !StaysOpen();
    lock.unlock();
    if (open && !counted)
        node->opens.BeginClose();
    if (open)
        Close();
}

const DirectoryListing::Entry *DirectoryListing::At(size_t index) const
{
    const MutexLock held(lock);
    return KnowsAbout(index) && index < entries.size() ? &entries[index] : nullptr;
}

std::vector<std::string> DirectoryListing::Hidden() const
{
    const MutexLock held(lock);
    return hidden;
}

nt::NTSTATUS DirectoryListing::Status() const
{
    const MutexLock held(lock);
    return status;
}

void DirectoryListing::EndUnread()
{
    {
        const MutexLock held(lock);
        if (begun || closed)
            return;
        begun = ended = closed = true;
    }
    node->opens.BeginClose();
    Close();
}

bool DirectoryListing::IsOpen() const
{
    const MutexLock held(lock);
    return !closed;
}

bool DirectoryListing::IsBegun() const
{
    const MutexLock held(lock);
    return begun;
}

void DirectoryListing::WhenKnown(size_t index, Waiter waiter)
{
    // An answer to an earlier query can let the waiter go, and with it the listing, while this goes on.
    const std::shared_ptr<DirectoryListing> self = shared_from_this();
    size_t queries = 0;
    bool known;
    {
        const MutexLock held(lock);
        if (!begun) {
            begun = true;
            if (!StaysOpen())
                node->opens.BeginClose();
        }
        read = std::max(read, index);
        readAt = Clock::now();
        queries = PlanQueries();
        known = KnowsAbout(index);
        if (!known)
            waiting.push_back({index, std::move(waiter)});
    }
    SendQueries(queries);
    if (known)
        waiter();
}

bool DirectoryListing::BeginsToWait()
{
    const MutexLock held(lock);
    const bool waited = waits;
    waits = waits || (!ended && IsFarAhead());
    return waits && !waited;
}

bool DirectoryListing::GoOnIfIdle(Clock::duration span)
{
    size_t queries;
    {
        const MutexLock held(lock);
        if (!ended && Clock::now() - readAt < span)
            return false;
        runsAhead = true;
        queries = PlanQueries();
    }
    SendQueries(queries);
    return true;
}

// How many queries to send now; they count as under way. A tagged share's root answers one after the other:
// what follows its made-up listing ends it once, and then would list what isn't to be seen. A handle that
// hinders a removal of the folder is read to its end at once.
size_t DirectoryListing::PlanQueries()
{
    if (ended || IsFarAhead())
        return 0;
    const bool oneByOne = NamesOneByOne();
    const size_t wanted = oneByOne ? 1 : std::min(kMostQueries, 2 + answered);
    const size_t count = wanted - std::min(wanted, inFlight);
    inFlight += count;
    return count;
}

void DirectoryListing::SendQueries(size_t count)
{
    const bool tagged = NamesOneByOne();
    for (; count != 0; --count) {
        bool first;
        {
            const MutexLock held(lock);
            first = answered == 0;
        }
        const std::u16string_view pattern =
            tagged && first ? std::u16string_view(u"\\*") : std::u16string_view();
        share->QueryDirectory(fileId, share->ListingClass(), tagged && first, pattern,
                              [self = shared_from_this(), asked = Clock::now()](const IoResult &result) {
                                  self->OnAnswer(result, asked);
                              });
    }
}

void DirectoryListing::Close()
{
    share->Close(fileId, [directory = node](const IoResult &) { directory->opens.EndClose(); });
}

void DirectoryListing::TakeEntries(ByteSpan answer, Clock::time_point asked)
{
    ended = ended || answer.empty(); // a peer that never ends
    DirectoryReader reader(answer, share->Ids());
    std::u16string ntName;
    for (DirectoryReader::Entry record; reader.Next(&record);) {
        record.CopyName(&ntName);
        if (ntName == u"." && !isFolder) {
            isFolder = record.facts.id == wantedId;
            if (!isFolder) { // another folder has the name by now
                entries.clear();
                ended = true;
                status = nt::STATUS_OBJECT_PATH_NOT_FOUND;
                return;
            }
        }
        if (share->LinksOfMount() == LinkView::Hide && !NamesOneByOne() && record.facts.IsSymbolicLink())
            continue;
        Entry entry;
        entry.facts = record.facts;
        entry.asked = asked;
        // What has no POSIX name can't be shown.
        if (!PosixNameFromNt(ntName, entry.name) || entry.name == "." || entry.name == ".." ||
            entry.name.empty())
            continue;
        if (entry.name.starts_with(kHiddenPrefix)) {
            hidden.push_back(std::move(entry.name));
            continue;
        }
        entries.push_back(std::move(entry));
    }
    if (reader.Malformed()) {
        ended = true;
        status = STATUS_INVALID_NETWORK_RESPONSE;
    }
}

void DirectoryListing::OnAnswer(const IoResult &result, Clock::time_point asked)
{
    std::vector<Waiter> ready;
    size_t queries = 0;
    bool close;
    {
        const MutexLock held(lock);
        --inFlight;
        ++answered;
        if (result.Failed()) {
            ended = true;
            const bool atEnd =
                result.status == nt::STATUS_NO_MORE_FILES || result.status == nt::STATUS_NO_SUCH_FILE;
            if (!atEnd && status == nt::STATUS_SUCCESS)
                status = result.status;
        } else {
            TakeEntries(result.data, asked);
        }
        queries = PlanQueries();
        close = IsOver() && !closed && !StaysOpen();
        closed = closed || close;
        for (size_t i = 0; i < waiting.size();) {
            if (!KnowsAbout(waiting[i].index)) {
                ++i;
                continue;
            }
            ready.push_back(std::move(waiting[i].waiter));
            waiting.erase(waiting.begin() + static_cast<ptrdiff_t>(i));
        }
    }
    SendQueries(queries);
    if (close)
        Close();
    for (Waiter &waiter : ready)
        waiter();
}

} // namespace fodr::agent
