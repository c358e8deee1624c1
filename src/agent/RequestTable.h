// The requests in flight. Their numbers are the CompletionIds on the wire: a slot and a generation, so that a
// late or repeated completion isn't taken for the answer to the slot's next request.
//
// A table that keeps requests outlives connections: what can be repeated, or wasn't sent yet, waits for the
// next one. Shares and files then have numbers of this side's own, and the table knows those of the wire.
//
// Any thread. The lock is held for a few instructions; handlers and the orphan hook run outside it.
#pragma once

#include "agent/IoResult.h"
#include "agent/LastingHandles.h"
#include "lib/misc/Mutex.h"

#include <memory>
#include <vector>

namespace fodr::agent {

class AgentChannel;

// What becomes of a request that was sent when its connection is lost.
enum class AfterLoss : uint8_t {
    Fails,
    Repeats, // doing it twice is doing it once
    IsOver,  // the other side has done it by losing the connection, as with a close
};

class RequestTable {
public:
    struct Expected {
        uint32_t deviceId = 0;
        AnswerKind answer = AnswerKind::Status;
        uint32_t limit = 0;
        bool timed = true; // false: may wait forever, as a change notification does
        AfterLoss afterLoss = AfterLoss::Fails;
        bool ofConnection = false; // its FileId is the wire's, and of no use behind this connection
        uint32_t onlyOn = 0;       // the connection whose numbers its payload has; 0: any
    };
    // Told of a file whose create was answered after the request had been given up: it has to be closed. The
    // file's id is the wire's.
    using OrphanHook = InlineFunction<void(uint32_t deviceId, uint32_t fileId)>;
    explicit RequestTable(OrphanHook onOrphan, bool keepsRequests = false)
        : keeps(keepsRequests), orphanHook(std::move(onOrphan))
    {}

    // How a request that was added leaves.
    struct Passage {
        AgentChannel *channel = nullptr;    // null: it isn't sent now
        std::shared_ptr<AgentChannel> hold; // for as long as it is being sent
        uint32_t fileToReopen = 0;          // the caller begins that
        std::shared_ptr<void> letGo;        // by a close, outside the lock
    };
    // Takes the handler over and puts the numbers of the wire into the request. When it gives another status
    // than STATUS_PENDING, that is the outcome, and the handler stays the caller's. The payload is borrowed.
    [[nodiscard]] nt::NTSTATUS Add(const Expected &expected, DR_DEVICE_IOREQUEST *request, ByteSpan payload,
                                   IoHandler &&handler, Passage *passage);

    // Hands a completion packet to the request it answers; one that answers none is dropped. At least
    // kCompletionBody bytes.
    void Complete(ByteSpan packet);

    // Ends requests of one device, or all of them for good, with the status. Their numbers stay taken until
    // a completion comes.
    void FailDevice(uint32_t deviceId, nt::NTSTATUS status);
    void FailAll(nt::NTSTATUS status);
    // Counts a step of time, and ends what has waited for more than `maxTicks` of them without any answer, or
    // six times as long: over a slow line each has its turn.
    void Tick(uint32_t maxTicks);

    size_t InFlight() const;
    // Whether a tick could end any.
    bool AnyTimed() const;

    // ---- Connections ----

    // What waited and goes now. The channel is null when there is nothing to send.
    struct Released {
        struct Packet {
            DR_DEVICE_IOREQUEST request;
            std::vector<uint8_t> payload;
        };
        std::shared_ptr<AgentChannel> channel;
        std::vector<Packet> packets;
        std::vector<uint32_t> filesToReopen;
        std::vector<std::pair<IoHandler, nt::NTSTATUS>> ended;
    };
    // The channel that requests take from now on.
    void Connect(std::shared_ptr<AgentChannel> newChannel);
    // For a table that keeps requests: the connection is lost, and what can wait does.
    void Disconnect();
    // A share has this number on the wire now.
    [[nodiscard]] Released Bind(uint32_t shareId, uint32_t wireId);
    // A share won't come back; its requests fail with STATUS_DEVICE_REMOVED.
    void RemoveShare(uint32_t shareId);

    // ---- Files that are opened again ----

    // The number on the present wire of a file that another request names in its payload; 0: there is none.
    // Expected::onlyOn of that request is filled in.
    uint32_t WireIdOf(uint32_t fileId, uint32_t *onlyOn);
    void Remember(uint32_t fileId, std::shared_ptr<IReopen> reopen);
    // What it was given by Remember; null: nothing.
    std::shared_ptr<IReopen> WayTo(uint32_t fileId);
    struct Reopening {
        uint32_t fileId = 0;
        uint32_t shareId = 0;
        uint32_t connection = 0;
        DR_CREATE_REQ how;
        std::shared_ptr<IReopen> reopen;
    };
    // False: nobody needs the file any more.
    [[nodiscard]] bool DescribeReopening(uint32_t fileId, Reopening *reopening);
    // The file is open as `wireId`, or can't be opened for the reason of the status. `*taken` says whether
    // the wire's handle is in use; else it has to be closed.
    [[nodiscard]] Released EndReopening(const Reopening &reopening, nt::NTSTATUS status, uint32_t wireId,
                                        bool *taken);

private:
    enum class SlotState : uint8_t { Free, Waiting, GivenUp };
    struct Slot {
        Expected expected;
        SlotState state = SlotState::Free;
        bool sent = true;
        uint32_t generation = 0;
        uint32_t sinceTick = 0;
        uint32_t wireDevice = 0;
        uint32_t connection = 0;
        IoHandler handler;
        // Kept for sending it again; with this side's numbers.
        DR_DEVICE_IOREQUEST request;
        std::vector<uint8_t> payload;
        uint64_t order = 0;
    };
    struct Share {
        uint32_t id = 0;
        uint32_t wireId = 0;
        bool bound = false;
    };
    static constexpr uint32_t kIndexBits = 20;
    static constexpr size_t kChunk = 256;

    Slot *SlotOf(uint32_t index) REQUIRES(lock) { return &chunks[index / kChunk][index % kChunk]; }
    void EndWait(const Slot &slot) REQUIRES(lock);
    void Free(uint32_t index) REQUIRES(lock);
    template <class Predicate> void GiveUp(Predicate &&isMeant, nt::NTSTATUS status);

    // Of a table that keeps requests (RequestTableLoss.cpp).
    enum class Way : uint8_t { Goes, Waits, Ends };
    struct Found {
        Way way = Way::Goes;
        nt::NTSTATUS outcome = nt::STATUS_SUCCESS; // when it ends
    };
    Found FindWay(const Expected &expected, DR_DEVICE_IOREQUEST *request, uint32_t *fileToReopen,
                  std::shared_ptr<void> *letGo) REQUIRES(lock);
    Found FateAtLoss(const Slot &slot) REQUIRES(lock);
    void Hold(Slot *slot) REQUIRES(lock);
    Share *FindShare(uint32_t shareId) REQUIRES(lock);
    bool HasRoomToWait(size_t bytes) const REQUIRES(lock);
    template <class Predicate> Released Release(Predicate &&isMeant) REQUIRES(lock);

    const bool keeps;
    mutable Mutex lock;
    std::vector<std::unique_ptr<Slot[]>> chunks GUARDED_BY(lock);
    std::vector<uint32_t> freeSlots GUARDED_BY(lock);
    uint32_t slotCount GUARDED_BY(lock) = 0;
    uint32_t tick GUARDED_BY(lock) = 0;
    uint32_t lastAnswer GUARDED_BY(lock) = 0; // its tick
    size_t waiting GUARDED_BY(lock) = 0;
    size_t timed GUARDED_BY(lock) = 0;     // of them
    size_t held GUARDED_BY(lock) = 0;      // of them, those that aren't sent
    size_t heldBytes GUARDED_BY(lock) = 0; // their payload
    bool ended GUARDED_BY(lock) = false;
    OrphanHook orphanHook;

    std::shared_ptr<AgentChannel> channel GUARDED_BY(lock);
    uint32_t connection GUARDED_BY(lock) = 1;
    uint64_t lastOrder GUARDED_BY(lock) = 0;
    std::vector<Share> shares GUARDED_BY(lock);
    LastingHandles files GUARDED_BY(lock);
};

} // namespace fodr::agent
