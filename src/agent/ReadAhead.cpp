#include "agent/ReadAhead.h"

#include <algorithm>
#include <array>

namespace fodr::agent {
namespace {

// The kernel asks for pieces side by side, which may come in a little out of order.
constexpr uint64_t kOutOfOrder = 1 << 20;
constexpr uint64_t kFirstReach = 256 << 10;

nt::NTSTATUS DataStatus(const IoResult &result)
{
    // Nothing is behind the end.
    return result.status == nt::STATUS_END_OF_FILE ? nt::STATUS_SUCCESS : result.status;
}

} // namespace

bool ReadAhead::Waiting::Ready() const
{
    return std::all_of(blocks.begin(), blocks.end(), [](const BlockPtr &block) { return block->arrived; });
}

// Cuts the read's range out of its blocks. What they can't give after all may still be had.
void ReadAhead::Answer(Waiting &read)
{
    std::vector<ByteSpan> parts;
    uint64_t at = read.offset;
    const uint64_t end = read.offset + read.length;
    bool whole = false;
    for (const BlockPtr &block : read.blocks) {
        if (nt::IsError(block->status))
            break;
        whole = block->ShowsEnd() || block->End() >= end;
        const uint64_t begin = at - block->offset;
        if (begin >= block->bytes.size())
            break;
        const uint64_t count = std::min<uint64_t>(block->bytes.size() - begin, end - at);
        parts.push_back(ByteSpan(block->bytes).subspan(begin, count));
        at += count;
        if (block->ShowsEnd())
            break;
    }
    if (!whole)
        return ReadDirectly(read.offset, read.length, std::move(read.handler));
    read.handler(nt::STATUS_SUCCESS, parts);
}

bool ReadAhead::CoveredBy(uint64_t offset, uint32_t length, std::vector<BlockPtr> *covering) const
{
    const uint64_t end = offset + length;
    auto next = blocks.upper_bound(offset);
    if (next == blocks.begin())
        return false;
    for (--next; next != blocks.end() && next->second->offset <= offset; ++next) {
        const Block &block = *next->second;
        if (offset >= block.End())
            return false;
        covering->push_back(next->second);
        offset = block.End();
        if (offset >= end || block.ShowsEnd() || (block.toEnd && !block.arrived))
            return true;
    }
    return false;
}

void ReadAhead::DropStale()
{
    const uint64_t generation = writes->Generation();
    for (auto block = blocks.begin(); block != blocks.end();) {
        const bool failed = block->second->arrived && nt::IsError(block->second->status);
        if (block->second->generation == generation && !failed) {
            ++block;
            continue;
        }
        block = blocks.erase(block);
        endSeen = false;
    }
}

void ReadAhead::DropBefore(uint64_t offset)
{
    while (!blocks.empty() && blocks.begin()->second->End() <= offset)
        blocks.erase(blocks.begin());
}

void ReadAhead::NoteProgress(uint64_t offset, uint32_t length)
{
    const uint64_t end = offset + length;
    const bool forward = offset <= nextOffset + kOutOfOrder && end + kOutOfOrder > nextOffset &&
                         (streak != 0 || offset == 0 || offset == nextOffset);
    if (!forward) {
        streak = 0;
        reach = 0;
        blocks.clear();
        nextOffset = end;
        endSeen = false;
        return;
    }
    ++streak;
    if (end > nextOffset) {
        nextOffset = end;
        reach = std::min<uint64_t>(std::max(kFirstReach, 2 * reach), window.Limit());
    }
    DropBefore(nextOffset - std::min(nextOffset, kOutOfOrder));
}

// The blocks to ask for now.
std::vector<ReadAhead::BlockPtr> ReadAhead::PlanAhead()
{
    std::vector<BlockPtr> planned;
    if (streak < 2 || endSeen)
        return planned;
    uint64_t from = nextOffset;
    if (!blocks.empty())
        from = std::max(from, blocks.rbegin()->second->End());
    const uint64_t to = nextOffset + reach;
    const auto size = static_cast<uint32_t>(std::clamp<uint64_t>(reach / 4, kSmallestBlock, kLargestBlock));
    // A block is asked for whole where there is room for a part of it: blocks don't become slivers, and a
    // window of few blocks is used up.
    while (from < to && window.InFlight() < window.Limit()) {
        planned.push_back(AddBlock(from, size));
        from += size;
    }
    return planned;
}

ReadAhead::BlockPtr ReadAhead::AddBlock(uint64_t offset, uint32_t size)
{
    auto block = std::make_shared<Block>();
    block->offset = offset;
    block->size = size;
    block->generation = writes->Generation();
    block->transfer = window.Begin(size, TransferWindow::Clock::now());
    blocks.emplace(offset, block);
    return block;
}

void ReadAhead::Request(const BlockPtr &block)
{
    share->Read(fileId, block->offset, block->size,
                [self = shared_from_this(), block](const IoResult &result) { self->OnBlock(block, result); });
}

void ReadAhead::OnBlock(const BlockPtr &block, const IoResult &result)
{
    // Nobody else looks at these before `arrived` is set.
    block->status = DataStatus(result);
    block->bytes.assign(result.data.begin(), result.data.end());
    std::vector<Waiting> ready;
    {
        const MutexLock held(lock);
        block->arrived = true;
        if (block->ShowsEnd() && block->generation == writes->Generation())
            endSeen = true;
        for (size_t i = 0; i < waiting.size();) {
            if (!waiting[i].Ready()) {
                ++i;
                continue;
            }
            ready.push_back(std::move(waiting[i]));
            waiting.erase(waiting.begin() + static_cast<ptrdiff_t>(i));
        }
    }
    window.End(block->transfer, TransferWindow::Clock::now());
    for (Waiting &read : ready)
        Answer(read);
}

void ReadAhead::Read(uint64_t offset, uint32_t length, Handler handler)
{
    Waiting read = {.offset = offset, .length = length, .blocks = {}, .handler = std::move(handler)};
    std::vector<BlockPtr> planned;
    bool covered, ready = false;
    {
        const MutexLock held(lock);
        DropStale();
        NoteProgress(offset, length);
        covered = CoveredBy(offset, length, &read.blocks);
        planned = PlanAhead();
        if (covered) {
            ready = read.Ready();
            if (!ready)
                waiting.push_back(std::move(read));
        }
    }
    if (!covered)
        ReadDirectly(offset, length, std::move(read.handler));
    for (const BlockPtr &block : planned)
        Request(block);
    if (ready)
        Answer(read);
}

void ReadAhead::ReadDirectly(uint64_t offset, uint32_t length, Handler handler)
{
    auto answer = [kept = std::make_unique<Handler>(std::move(handler))](const IoResult &result) {
        (*kept)(DataStatus(result), {&result.data, result.Failed() ? 0u : 1u});
    };
    share->Read(fileId, offset, length, std::move(answer));
}

void ReadAhead::Prime(uint32_t length, bool toEnd)
{
    BlockPtr block;
    {
        const MutexLock held(lock);
        if (blocks.empty() && window.InFlight() < window.Limit())
            block = AddBlock(0, length);
        if (block)
            block->toEnd = toEnd;
    }
    if (block)
        Request(block);
}

} // namespace fodr::agent
