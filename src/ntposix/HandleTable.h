// Handles of open files: 32 bits, never 0, multiples of four, with a generation in the high bits so that a
// stale handle isn't taken for its successor.
//
// Any thread. A lookup touches the slot of that one file and no lock. A file that was looked up stays alive
// until its OpenFileRef goes, whoever closes the handle meanwhile.
#pragma once

#include "lib/misc/Mutex.h"
#include "ntposix/OpenFile.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

namespace fodr::ntposix {

struct HandleSlot;

// Keeps an open file in use. Move-only; empty when the handle was not valid.
class OpenFileRef {
public:
    OpenFileRef() = default;
    OpenFileRef(HandleSlot *heldSlot, OpenFile *heldFile) : slot(heldSlot), file(heldFile) {}
    ~OpenFileRef() { Reset(); }
    OpenFileRef(OpenFileRef &&other) noexcept
        : slot(std::exchange(other.slot, nullptr)), file(std::exchange(other.file, nullptr))
    {}
    OpenFileRef &operator=(OpenFileRef &&other) noexcept
    {
        if (this != &other) {
            Reset();
            slot = std::exchange(other.slot, nullptr);
            file = std::exchange(other.file, nullptr);
        }
        return *this;
    }

    explicit operator bool() const { return file != nullptr; }
    OpenFile *operator->() const { return file; }
    OpenFile &operator*() const { return *file; }

private:
    void Reset();

    HandleSlot *slot = nullptr;
    OpenFile *file = nullptr;
};

class HandleTable {
public:
    static HandleTable &Instance();
    HandleTable() = default;
    ~HandleTable();
    HandleTable(const HandleTable &) = delete;
    HandleTable &operator=(const HandleTable &) = delete;

    // Takes the file and gives its handle; null when the table is full, with the file left where it was.
    [[nodiscard]] nt::HANDLE Add(std::unique_ptr<OpenFile> &file);
    [[nodiscard]] OpenFileRef Find(nt::HANDLE handle);
    // Makes the handle invalid and gives the table's own reference; only one of several callers gets it.
    [[nodiscard]] OpenFileRef Remove(nt::HANDLE handle);

private:
    friend class OpenFileRef;
    static constexpr uint32_t kIndexBits = 18;
    static constexpr uint32_t kChunkSlots = 1024;
    static constexpr uint32_t kChunks = (1u << kIndexBits) / kChunkSlots;

    HandleSlot *SlotOf(nt::HANDLE handle) const; // null for what was never a handle
    bool Grow() REQUIRES(freeLock);
    void Free(HandleSlot *slot);

    std::array<std::atomic<HandleSlot *>, kChunks> chunks{};
    Mutex freeLock;
    // First in, first out, so that a slot's generations last.
    HandleSlot *firstFree GUARDED_BY(freeLock) = nullptr;
    HandleSlot *lastFree GUARDED_BY(freeLock) = nullptr;
    uint32_t freeSlots GUARDED_BY(freeLock) = 0;
    uint32_t chunkCount GUARDED_BY(freeLock) = 0;
};

// The process's limit of open files, and what of it is the host's own. Any thread.

// Descriptors that no open of an agent may take: with none left the host could neither be asked how it does
// nor carry out what it has accepted. Of a small limit it is a quarter.
inline constexpr int kDescriptorReserve = 256;

// Raises the soft limit as far as the hard one and reason allow. False when there was nothing to raise.
[[nodiscard]] bool RaiseDescriptorLimit();

// Whether a handle may keep this descriptor. The kernel gives the lowest number that is free, so a high one
// tells that few are left. The soft limit is raised for it.
[[nodiscard]] bool MayKeepDescriptor(int fd);
// Whether the next one could be kept; looks closely only when the last one was near the end.
[[nodiscard]] bool HasDescriptorRoom();

} // namespace fodr::ntposix
