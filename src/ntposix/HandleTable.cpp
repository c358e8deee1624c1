#include "ntposix/HandleTable.h"

#include "lib/misc/Fd.h"
#include "ntposix/FileObject.h"

#include <fcntl.h>

#include <algorithm>
#include <atomic>
#include <new>
#include <sys/resource.h>

namespace fodr::ntposix {

namespace {

constexpr uint32_t kIndexShift = 2;
constexpr uint32_t kGenerationShift = 20;
constexpr uint32_t kLastGeneration = 0x7FF; // bit 31 stays clear: a sign-extended handle is the same handle
// Slots that rest before they are used again, as long as the table can grow.
constexpr uint32_t kRestingSlots = 512;
constexpr uint64_t kReferences = 0xFFFFFFFF;

constexpr uint64_t OpenState(uint32_t handle)
{
    return static_cast<uint64_t>(handle) << 32 | 1;
}

} // namespace

// `state` is the handle in the high half, 0 unless it is valid, and the count of references in the low one.
// The valid handle holds a reference of its own, so the count reaches 0 only after Remove.
struct alignas(64) HandleSlot {
    std::atomic<uint64_t> state{0};
    OpenFile *file = nullptr;
    HandleTable *table = nullptr;
    HandleSlot *nextFree = nullptr;
    uint32_t index = 0;
    uint32_t generation = 0;
};

void OpenFileRef::Reset()
{
    if (!file)
        return;
    HandleSlot *held = std::exchange(slot, nullptr);
    OpenFile *last = std::exchange(file, nullptr);
    if ((held->state.fetch_sub(1, std::memory_order_acq_rel) & kReferences) != 1)
        return;
    delete last;
    held->table->Free(held);
}

HandleTable &HandleTable::Instance()
{
    FileObjectTable::Instance(); // outlives the open files
    static HandleTable table;
    return table;
}

HandleTable::~HandleTable()
{
    for (std::atomic<HandleSlot *> &chunk : chunks)
        delete[] chunk.load();
}

nt::HANDLE HandleTable::Add(std::unique_ptr<OpenFile> &file)
{
    HandleSlot *slot;
    {
        const MutexLock guard(freeLock);
        if (freeSlots <= kRestingSlots && !Grow() && freeSlots == 0)
            return nullptr;
        slot = firstFree;
        firstFree = slot->nextFree;
        if (!firstFree)
            lastFree = nullptr;
        --freeSlots;
    }
    slot->generation = slot->generation == kLastGeneration ? 1 : slot->generation + 1;
    slot->file = file.release();
    const uint32_t handle = slot->index << kIndexShift | slot->generation << kGenerationShift;
    slot->state.store(OpenState(handle), std::memory_order_release);
    return reinterpret_cast<nt::HANDLE>(static_cast<uintptr_t>(handle));
}

OpenFileRef HandleTable::Find(nt::HANDLE handle)
{
    HandleSlot *slot = SlotOf(handle);
    if (!slot)
        return {};
    const uint64_t wanted = reinterpret_cast<uintptr_t>(handle);
    uint64_t state = slot->state.load(std::memory_order_relaxed);
    do {
        if (state >> 32 != wanted)
            return {};
    } while (!slot->state.compare_exchange_weak(state, state + 1, std::memory_order_acquire,
                                                std::memory_order_relaxed));
    return OpenFileRef(slot, slot->file);
}

OpenFileRef HandleTable::Remove(nt::HANDLE handle)
{
    HandleSlot *slot = SlotOf(handle);
    if (!slot)
        return {};
    const uint64_t wanted = reinterpret_cast<uintptr_t>(handle);
    uint64_t state = slot->state.load(std::memory_order_relaxed);
    do {
        if (state >> 32 != wanted)
            return {};
    } while (!slot->state.compare_exchange_weak(state, state & kReferences, std::memory_order_acq_rel,
                                                std::memory_order_relaxed));
    return OpenFileRef(slot, slot->file);
}

HandleSlot *HandleTable::SlotOf(nt::HANDLE handle) const
{
    const uint64_t value = reinterpret_cast<uintptr_t>(handle);
    if (value == 0 || value > 0x7FFFFFFF || value % 4 != 0)
        return nullptr;
    const uint32_t index = value >> kIndexShift & ((1u << kIndexBits) - 1);
    HandleSlot *chunk = chunks[index / kChunkSlots].load(std::memory_order_acquire);
    return chunk ? chunk + index % kChunkSlots : nullptr;
}

bool HandleTable::Grow()
{
    HandleSlot *chunk = chunkCount < kChunks ? new (std::nothrow) HandleSlot[kChunkSlots] : nullptr;
    if (!chunk)
        return false;
    for (uint32_t i = 0; i < kChunkSlots; ++i) {
        chunk[i].table = this;
        chunk[i].index = chunkCount * kChunkSlots + i;
        chunk[i].nextFree = i + 1 < kChunkSlots ? &chunk[i + 1] : nullptr;
    }
    (lastFree ? lastFree->nextFree : firstFree) = chunk;
    lastFree = &chunk[kChunkSlots - 1];
    freeSlots += kChunkSlots;
    chunks[chunkCount++].store(chunk, std::memory_order_release);
    return true;
}

void HandleTable::Free(HandleSlot *slot)
{
    const MutexLock guard(freeLock);
    slot->nextFree = nullptr;
    (lastFree ? lastFree->nextFree : firstFree) = slot;
    lastFree = slot;
    ++freeSlots;
}

namespace {

// As many handles as there can be, and some more for everyone else in the process.
constexpr rlim_t kEnough = 300'000;
constexpr int kNear = 64;
constexpr int kOfAnOpen = 8; // descriptors that an open has at most, with those of the way to the file

std::atomic<int> ceiling{0}; // the first number of the reserve; 0: not known yet
std::atomic<int> lastKept{0};

int ReadCeiling()
{
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return ceiling.load();
    const int most = static_cast<int>(std::min(limit.rlim_cur, kEnough));
    const int first = std::max(most - std::min(kDescriptorReserve, most / 4), 1);
    ceiling.store(first);
    return first;
}

} // namespace

bool RaiseDescriptorLimit()
{
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return false;
    const rlim_t raised = std::min(limit.rlim_max, kEnough);
    if (raised <= limit.rlim_cur)
        return false;
    limit.rlim_cur = raised;
    return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

bool MayKeepDescriptor(int fd)
{
    lastKept.store(fd, std::memory_order_relaxed);
    if (fd < ceiling.load(std::memory_order_relaxed) || fd < ReadCeiling())
        return true;
    return RaiseDescriptorLimit() && fd < ReadCeiling();
}

bool HasDescriptorRoom()
{
    const int first = ceiling.load(std::memory_order_relaxed);
    if (first == 0 || lastKept.load(std::memory_order_relaxed) < first - kNear)
        return true;
    const Fd probe(open("/", O_PATH | O_CLOEXEC));
    return probe && MayKeepDescriptor(probe.Get() + kOfAnOpen);
}

} // namespace fodr::ntposix
