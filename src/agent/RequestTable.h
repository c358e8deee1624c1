// The requests in flight. Their numbers are the CompletionIds on the wire: a slot and a generation, so that a
// late or repeated completion isn't taken for the answer to the slot's next request.
//
// Any thread. The lock is held for a few instructions; handlers and the orphan hook run outside it.
#pragma once

#include "agent/IoResult.h"
#include "transport/Mutex.h"

#include <memory>
#include <vector>

namespace fodr::agent {

class RequestTable {
public:
    struct Expected {
        uint32_t deviceId = 0;
        AnswerKind answer = AnswerKind::Status;
        uint32_t limit = 0;
        bool timed = true; // false: may wait forever, as a change notification does
    };
    // Told of a file whose create was answered after the request had been given up: it has to be closed.
    using OrphanHook = InlineFunction<void(uint32_t deviceId, uint32_t fileId)>;
    explicit RequestTable(OrphanHook onOrphan) : orphanHook(std::move(onOrphan)) {}

    // Takes the handler over and gives the request's number. False when FailAll has been called: the handler
    // stays the caller's.
    [[nodiscard]] bool Add(const Expected &expected, IoHandler &&handler, uint32_t *completionId);

    // Hands a completion packet to the request it answers; one that answers none is dropped. At least
    // kCompletionBody bytes.
    void Complete(ByteSpan packet);

    // Ends requests of one device, or all of them for good, with the status. Their numbers stay taken until
    // a completion comes.
    void FailDevice(uint32_t deviceId, nt::NTSTATUS status);
    void FailAll(nt::NTSTATUS status);
    // Counts a step of time, and ends what has waited for more than `maxTicks` of them.
    void Tick(uint32_t maxTicks);

    size_t InFlight() const;
    // Whether a tick could end any.
    bool AnyTimed() const;

private:
    enum class SlotState : uint8_t { Free, Waiting, GivenUp };
    struct Slot {
        Expected expected;
        SlotState state = SlotState::Free;
        uint32_t generation = 0;
        uint32_t sinceTick = 0;
        IoHandler handler;
    };
    static constexpr uint32_t kIndexBits = 20;
    static constexpr size_t kChunk = 256;

    void EndWait(const Slot &slot) REQUIRES(lock);
    Slot *SlotOf(uint32_t index) REQUIRES(lock) { return &chunks[index / kChunk][index % kChunk]; }
    template <class Predicate> void GiveUp(Predicate &&isMeant, nt::NTSTATUS status);

    mutable transport::Mutex lock;
    std::vector<std::unique_ptr<Slot[]>> chunks GUARDED_BY(lock);
    std::vector<uint32_t> freeSlots GUARDED_BY(lock);
    uint32_t slotCount GUARDED_BY(lock) = 0;
    uint32_t tick GUARDED_BY(lock) = 0;
    size_t waiting GUARDED_BY(lock) = 0;
    size_t timed GUARDED_BY(lock) = 0; // of them
    bool ended GUARDED_BY(lock) = false;
    OrphanHook orphanHook;
};

} // namespace fodr::agent
