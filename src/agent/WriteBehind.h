// Writes of one file that were reported as taken before the other side has acknowledged them.
//
// The other side handles packets in any order, so two writes that overlap are never on their way together:
// the later one waits. Whoever needs the file as written waits here first. Any thread; handlers run outside
// the lock, mostly on a reader thread.
#pragma once

#include "agent/LossRecovery.h"
#include "agent/RemoteShare.h"
#include "agent/TransferWindow.h"

#include <atomic>
#include <deque>
#include <map>
#include <memory>

namespace fodr::agent {

// What went wrong with the writes of one open file. The first failure is kept until it has been reported
// once to a write, and once to a flush.
class WriteErrors {
public:
    void Note(nt::NTSTATUS status);
    // STATUS_SUCCESS when there is nothing to report.
    nt::NTSTATUS TakeForWrite();
    nt::NTSTATUS TakeForFlush();

private:
    Mutex lock;
    nt::NTSTATUS forWrite GUARDED_BY(lock) = nt::STATUS_SUCCESS;
    nt::NTSTATUS forFlush GUARDED_BY(lock) = nt::STATUS_SUCCESS;
};

class WriteBehind : public std::enable_shared_from_this<WriteBehind> {
public:
    // The window outlives what is on its way.
    explicit WriteBehind(TransferWindow &transferWindow) : window(transferWindow) {}

    // Where a write goes and who hears of its failure.
    struct Target {
        std::shared_ptr<RemoteShare> share;
        uint32_t fileId = 0;
        std::shared_ptr<WriteErrors> errors;
    };
    // Sends the bytes, or keeps a copy of them until they may go. `accepted` is called when the writer may go
    // on: there is room for more, and if the bytes had to wait, they have been written.
    using Waiter = InlineFunction<void()>;
    void Write(const Target &target, uint64_t offset, ByteSpan bytes, Waiter accepted);
    // The same at the end of the file, wherever that is by then: the other side finds it. One such request is
    // on its way at a time, and nothing else of the file meanwhile; those that wait for it go together. When
    // a connection is lost, and outlived, it is looked whether the bytes are there, and they are sent again
    // if they aren't. Where that can't be told the append fails.
    void Append(const Target &target, ByteSpan bytes, Waiter accepted);

    // What is gone by then: facts that the other side told, and the Generation before they were asked for.
    void NoteFacts(const FileFacts &facts, uint64_t asked);
    // Around every change of the size by this side.
    void SizeChanges();
    void SizeChanged(nt::NTSTATUS outcome, uint64_t size);

    // Calls the function when every write begun before has been acknowledged or has failed: all, or those
    // that overlap [offset, offset + length).
    void WhenDone(Waiter waiter);
    void WhenRangeDone(uint64_t offset, uint64_t length, Waiter waiter);

    // Rises whenever the file's data may have become other than what was read before.
    uint64_t Generation() const { return generation; }
    void DataChanged() { ++generation; }

private:
    static constexpr uint64_t kToEnd = RemoteShare::kEndOfFile; // the offset of an append
    static constexpr size_t kMostAppended = 1 << 20;            // bytes of appends that go together

    struct Active {
        uint64_t end = 0;
        size_t size = 0;
        uint64_t sequence = 0;
        TransferWindow::Transfer transfer;
    };
    // An append that may have to be looked for.
    struct Appending {
        Target target;
        std::vector<uint8_t> bytes;
        AppendFloor floor{};
    };
    using AppendingPtr = std::shared_ptr<Appending>;
    struct Queued {
        Target target;
        uint64_t offset = 0;
        uint64_t sequence = 0;
        std::vector<uint8_t> bytes;
        bool Appends() const { return offset == kToEnd; }
        // An append may touch any part of the file.
        uint64_t Begin() const { return Appends() ? 0 : offset; }
        uint64_t End() const { return Appends() ? kToEnd : offset + bytes.size(); }
    };
    struct Pending { // a caller that waits
        uint64_t sequence = 0;
        uint64_t offset = 0;
        uint64_t end = 0;
        size_t count = 0;
        Waiter waiter;
    };

    void Send(const Target &target, uint64_t offset, ByteSpan bytes);
    void SendAppend(const AppendingPtr &append);
    void OnAppended(const AppendingPtr &append, const IoResult &result);
    void OnLookedFor(const AppendingPtr &append, const AppendFound &found);
    void OnAnswer(const std::shared_ptr<WriteErrors> &errors, uint64_t begin, const IoResult &result);
    bool OverlapsActive(uint64_t begin, uint64_t end) const REQUIRES(lock);
    bool OverlapsQueued(uint64_t begin, uint64_t end) const REQUIRES(lock);
    void Activate(uint64_t begin, uint64_t end, size_t size, uint64_t sequence) REQUIRES(lock);
    std::vector<Queued> TakeSendable() REQUIRES(lock);
    std::vector<Waiter> TakeSatisfied(uint64_t offset, const Active &done) REQUIRES(lock);

    TransferWindow &window;
    std::atomic<uint64_t> generation{0};
    Mutex lock;
    uint64_t lastSequence GUARDED_BY(lock) = 0;
    std::map<uint64_t, Active> active GUARDED_BY(lock); // by where it begins; none overlaps another
    std::deque<Queued> queued GUARDED_BY(lock);         // in the order of their sequence
    std::vector<Pending> pending GUARDED_BY(lock);
    KnownEnd knownEnd GUARDED_BY(lock);
};

} // namespace fodr::agent
