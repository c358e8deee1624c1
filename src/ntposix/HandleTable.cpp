#include "ntposix/HandleTable.h"

#include "ntposix/FileObjectTable.h"

#include <new>

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

} // namespace fodr::ntposix
