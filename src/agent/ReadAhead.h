// Reads of one open file. A reader that goes from front to back is kept supplied: blocks ahead of it are
// asked for before it does, as many as the connection needs to stay busy. Other reads are passed on.
//
// What was read ahead counts only while the file's generation stands: it is dropped when this side writes,
// and when the file is seen to have changed. Any thread; handlers run outside the lock.
#pragma once

#include "agent/RemoteShare.h"
#include "agent/TransferWindow.h"
#include "agent/WriteBehind.h"

#include <map>
#include <memory>
#include <vector>

namespace fodr::agent {

class ReadAhead : public std::enable_shared_from_this<ReadAhead> {
public:
    // The window outlives what is on its way.
    ReadAhead(std::shared_ptr<RemoteShare> remoteShare, uint32_t remoteFile,
              std::shared_ptr<WriteBehind> fileWrites, TransferWindow &transferWindow)
        : share(std::move(remoteShare)), fileId(remoteFile), writes(std::move(fileWrites)),
          window(transferWindow)
    {}

    // The parts follow each other from the offset on, and end with the call; fewer bytes than asked for, or
    // none, mean the end of the file. A failure has no parts.
    using Handler = InlineFunction<void(nt::NTSTATUS, std::span<const ByteSpan>)>;
    void Read(uint64_t offset, uint32_t length, Handler handler);

    // Asks for the beginning of a file that will surely be read. With `toEnd` that should be all of it: reads
    // beyond the length wait for its answer, too, and ask for themselves only when the file has grown.
    void Prime(uint32_t length, bool toEnd);

private:
    static constexpr uint32_t kSmallestBlock = 128 << 10;
    static constexpr uint32_t kLargestBlock = 1 << 20;

    struct Block {
        uint64_t offset = 0;
        uint32_t size = 0; // asked for
        uint64_t generation = 0;
        bool toEnd = false; // asked for with a byte beyond what was last known to be there
        bool arrived = false;
        nt::NTSTATUS status = nt::STATUS_SUCCESS;
        std::vector<uint8_t> bytes;
        TransferWindow::Transfer transfer;

        uint64_t End() const { return offset + size; }
        bool ShowsEnd() const { return arrived && bytes.size() < size; }
    };
    using BlockPtr = std::shared_ptr<Block>;
    struct Waiting { // a read that blocks cover, or should
        uint64_t offset = 0;
        uint32_t length = 0;
        std::vector<BlockPtr> blocks;
        Handler handler;
        bool Ready() const;
    };

    void Answer(Waiting &read);
    bool CoveredBy(uint64_t offset, uint32_t length, std::vector<BlockPtr> *covering) const REQUIRES(lock);
    void DropStale() REQUIRES(lock);
    void DropBefore(uint64_t offset) REQUIRES(lock);
    void NoteProgress(uint64_t offset, uint32_t length) REQUIRES(lock);
    std::vector<BlockPtr> PlanAhead() REQUIRES(lock);
    BlockPtr AddBlock(uint64_t offset, uint32_t size) REQUIRES(lock);
    void Request(const BlockPtr &block);
    void OnBlock(const BlockPtr &block, const IoResult &result);
    void ReadDirectly(uint64_t offset, uint32_t length, Handler handler);

    const std::shared_ptr<RemoteShare> share;
    const uint32_t fileId;
    const std::shared_ptr<WriteBehind> writes;
    TransferWindow &window;

    Mutex lock;
    std::map<uint64_t, BlockPtr> blocks GUARDED_BY(lock); // by offset, not overlapping
    std::vector<Waiting> waiting GUARDED_BY(lock);
    uint64_t nextOffset GUARDED_BY(lock) = 0; // where a reader from front to back goes on
    uint32_t streak GUARDED_BY(lock) = 0;     // reads in a row that did
    uint64_t reach GUARDED_BY(lock) = 0;      // how far ahead to ask at present
    bool endSeen GUARDED_BY(lock) = false;    // the last block came back short
};

} // namespace fodr::agent
