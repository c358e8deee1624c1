// What becomes of open files after a lost connection. They are opened again, each known to be the same file;
// and an append whose answer was lost is looked for in the file, behind the size that it had before.
#pragma once

#include "agent/Coroutine.h"
#include "agent/FileFacts.h"
#include "agent/RemoteShare.h"
#include "agent/RequestTable.h"

#include <string_view>
#include <unordered_set>

namespace fodr::agent {

// What is known before an append.
struct AppendFloor {
    uint64_t size = 0; // the file had as much at least
    bool known = false;
    bool saidBefore = false; // earlier appends of the same bytes may be behind that size
    size_t bytesHash = 0;
    uint32_t cuts = 0; // as KnownEnd counts them
};

// What is known of a file's size. The other side's owner may append and truncate; no lock of its own.
class KnownEnd {
public:
    // The file had this size; `exact`: and nothing of this side's was on its way meanwhile.
    void NoteSize(uint64_t seen, bool exact);
    // This side sets another size, now; what is on its way can't rely on the earlier one.
    void Cut();
    void NoteWritten(uint64_t end); // the file reaches as far

    AppendFloor Before(ByteSpan bytes) const;
    bool WasCutSince(const AppendFloor &before) const { return before.cuts != cuts; }
    // An append that has ended, and how many bytes are surely there of it.
    void NoteAppended(const AppendFloor &before, uint64_t length);

private:
    static constexpr size_t kMostSaid = 4096;

    uint64_t size = 0;
    bool known = false;
    bool tooManySaid = false;
    uint32_t cuts = 0;
    std::unordered_set<size_t> said; // hashes of what was appended since `size` was seen
};

enum class AppendFate : uint8_t { Done, NotDone, Unknown };
struct AppendFound {
    AppendFate fate = AppendFate::Unknown;
    uint64_t size = 0; // of the file by then, unless it is unknown
};
// `fileId` is a handle of the file that outlives connections. The handler is called once, when there is a
// connection again and the file has been looked at, or the time for that is over. At most kMostSearched bytes
// are read, by a handle of its own. The bytes are borrowed until then.
constexpr uint64_t kMostSearched = 4 << 20;
void LookForAppend(std::shared_ptr<RemoteShare> share, uint32_t fileId, const AppendFloor &floor,
                   ByteSpan bytes, InlineFunction<void(const AppendFound &)> handler);

class RdpdrClient;

// Opens a file again over a new connection, and makes sure that it is the same one. `release` gets what
// waited for the file. Returns as soon as the first request is sent; both outlive it.
void ReopenFile(RdpdrClient &client, RequestTable &requests, uint32_t fileId,
                InlineFunction<void(RequestTable::Released)> release);

// Whether the handle is of the file that was open: STATUS_SUCCESS, STATUS_FILE_INVALID for another, or why it
// can't be told. All arguments outlive the wait.
Task<nt::NTSTATUS> CheckIdentity(RemoteShare &share, uint32_t fileId, IReopen &reopen);

} // namespace fodr::agent
