#include "agent/LossRecovery.h"

#include "agent/Coroutine.h"
#include "agent/LastingHandles.h"
#include "agent/RemoteShare.h"
#include "platform/Nt.h"
#include "platform/NtRecords.h"

#include <algorithm>
#include <array>
#include <functional>

namespace fodr::agent {

namespace {

constexpr uint32_t kPiece = 1 << 20; // read at once

// By a handle of its own: who only appends may not read.
Task<bool> ReadPart(RemoteShare &share, uint32_t fileId, uint64_t from, uint64_t length,
                    std::vector<uint8_t> *part)
{
    const std::shared_ptr<IReopen> reopen = share.WayTo(fileId);
    std::u16string path;
    if (!reopen || !reopen->Place(&path))
        co_return false;
    const RemoteShare::CreateCall open = {
        .desiredAccess = nt::FILE_READ_DATA | nt::FILE_READ_ATTRIBUTES | nt::SYNCHRONIZE,
        .createDisposition = nt::FILE_OPEN,
        .createOptions = nt::FILE_NON_DIRECTORY_FILE | nt::FILE_OPEN_REPARSE_POINT};
    const IoResult opened = co_await share.Create(open, path);
    if (opened.Failed())
        co_return false;
    const uint32_t looking = opened.fileId;
    share.Remember(looking, reopen);
    const nt::NTSTATUS same = co_await CheckIdentity(share, looking, *reopen);
    bool whole = !nt::IsError(same);
    while (whole && part->size() < length) {
        const auto piece = static_cast<uint32_t>(std::min<uint64_t>(kPiece, length - part->size()));
        const IoResult read = co_await share.Read(looking, from + part->size(), piece);
        whole = !read.Failed() && !read.data.empty();
        part->insert(part->end(), read.data.begin(), read.data.end());
    }
    share.Close(looking, [](const IoResult &) {});
    co_return whole;
}

Task<AppendFound> Look(RemoteShare &share, uint32_t fileId, AppendFloor floor, ByteSpan bytes)
{
    AppendFound found;
    {
        const IoResult told = co_await share.QueryInformation(fileId, nt::FileNetworkOpenInformation);
        FileFacts facts;
        if (told.Failed() || !ReadNetworkOpenInformation(told.data, &facts) || facts.endOfFile < 0)
            co_return found;
        found.size = static_cast<uint64_t>(facts.endOfFile);
    }
    const bool wasCut = !floor.known || found.size < floor.size;
    const uint64_t from = wasCut ? 0 : floor.size;
    const uint64_t length = found.size - from;
    if (length < bytes.size()) {
        found.fate = AppendFate::NotDone;
        co_return found;
    }
    std::vector<uint8_t> part;
    if (length > kMostSearched)
        co_return found;
    const bool whole = co_await ReadPart(share, fileId, from, length, &part);
    if (!whole)
        co_return found;
    const auto at =
        std::search(part.begin(), part.end(), std::boyer_moore_searcher(bytes.begin(), bytes.end()));
    if (at == part.end())
        found.fate = AppendFate::NotDone; // or cut off again, by who didn't know of it
    else if (!wasCut && (!floor.saidBefore || (at == part.begin() && length == bytes.size())))
        found.fate = AppendFate::Done;
    co_return found;
}

Detached Run(std::shared_ptr<RemoteShare> share, uint32_t fileId, AppendFloor floor, ByteSpan bytes,
             InlineFunction<void(const AppendFound &)> handler)
{
    const AppendFound found = co_await Look(*share, fileId, floor, bytes);
    handler(found);
}

} // namespace

void KnownEnd::NoteSize(uint64_t seen, bool exact)
{
    if (exact) {
        size = seen;
        known = true;
        tooManySaid = false;
        said.clear();
    } else if (known || cuts == 0) {
        size = std::max(size, seen);
        known = true;
    }
}

void KnownEnd::Cut()
{
    ++cuts;
    known = false;
}

void KnownEnd::NoteWritten(uint64_t end)
{
    if (known)
        size = std::max(size, end);
}

AppendFloor KnownEnd::Before(ByteSpan bytes) const
{
    const std::string_view text(reinterpret_cast<const char *>(bytes.data()), bytes.size());
    const size_t hash = std::hash<std::string_view>()(text);
    return {.size = size,
            .known = known,
            .saidBefore = tooManySaid || said.contains(hash),
            .bytesHash = hash,
            .cuts = cuts};
}

void KnownEnd::NoteAppended(const AppendFloor &before, uint64_t length)
{
    if (before.known && !WasCutSince(before))
        size = std::max(size, before.size + length);
    else
        known = false;
    tooManySaid = tooManySaid || said.size() >= kMostSaid;
    if (!tooManySaid)
        said.insert(before.bytesHash);
}

void LookForAppend(std::shared_ptr<RemoteShare> share, uint32_t fileId, const AppendFloor &floor,
                   ByteSpan bytes, InlineFunction<void(const AppendFound &)> handler)
{
    Run(std::move(share), fileId, floor, bytes, std::move(handler));
}

namespace {

// The statuses of a request that may fare better another time.
bool SaysLater(nt::NTSTATUS status)
{
    return status == STATUS_IO_TIMEOUT || status == STATUS_CONNECTION_DISCONNECTED;
}

bool SaysGone(nt::NTSTATUS status)
{
    constexpr std::array kGone = {nt::STATUS_OBJECT_NAME_NOT_FOUND, nt::STATUS_OBJECT_PATH_NOT_FOUND,
                                  nt::STATUS_NO_SUCH_FILE,          nt::STATUS_DELETE_PENDING,
                                  nt::STATUS_FILE_DELETED,          nt::STATUS_FILE_IS_A_DIRECTORY,
                                  nt::STATUS_NOT_A_DIRECTORY,       nt::STATUS_OBJECT_NAME_INVALID};
    return std::find(kGone.begin(), kGone.end(), status) != kGone.end();
}

Detached Run(RdpdrClient &client, RequestTable &requests, RequestTable::Reopening reopening,
             InlineFunction<void(RequestTable::Released)> release)
{
    RemoteDevice device;
    device.id = reopening.shareId;
    RemoteShare share(client, device, RemoteShare::FileNumbers::OfConnection);
    std::u16string path;
    nt::NTSTATUS status = STATUS_FILE_INVALID;
    uint32_t fileId = 0;
    if (reopening.reopen->Place(&path)) {
        const RemoteShare::CreateCall call = {.desiredAccess = reopening.how.DesiredAccess,
                                              .createDisposition = nt::FILE_OPEN,
                                              .createOptions = reopening.how.CreateOptions,
                                              .sharedAccess = reopening.how.SharedAccess};
        const IoResult opened = co_await share.Create(call, path);
        status = SaysGone(opened.status) ? STATUS_FILE_INVALID : opened.status;
        fileId = opened.fileId;
        if (!opened.Failed())
            status = co_await CheckIdentity(share, fileId, *reopening.reopen);
    }
    bool taken = false;
    RequestTable::Released released = requests.EndReopening(reopening, status, fileId, &taken);
    if (fileId != 0 && !taken)
        share.Close(fileId, [](const IoResult &) {});
    release(std::move(released));
}

} // namespace

Task<nt::NTSTATUS> CheckIdentity(RemoteShare &share, uint32_t fileId, IReopen &reopen)
{
    const uint64_t expected = reopen.ExpectedId();
    // Both begin with the file's id.
    constexpr std::array kClasses = {nt::FileStatLxInformation, nt::FileInternalInformation};
    for (size_t i = 0; expected != 0 && i < kClasses.size(); ++i) {
        const IoResult result = co_await share.QueryInformation(fileId, kClasses[i]);
        if (SaysLater(result.status))
            co_return result.status;
        uint64_t id = 0;
        if (!result.Failed() && result.data.size() >= sizeof(id))
            id = LoadLittle<uint64_t>(result.data.data());
        if (id != 0)
            co_return id == expected ? nt::STATUS_SUCCESS : STATUS_FILE_INVALID;
    }
    const IoResult result = co_await share.QueryInformation(fileId, nt::FileNetworkOpenInformation);
    if (SaysLater(result.status))
        co_return result.status;
    FileFacts facts;
    const bool same =
        !result.Failed() && ReadNetworkOpenInformation(result.data, &facts) && reopen.MayBe(facts);
    co_return same ? nt::STATUS_SUCCESS : STATUS_FILE_INVALID;
}

void ReopenFile(RdpdrClient &client, RequestTable &requests, uint32_t fileId,
                InlineFunction<void(RequestTable::Released)> release)
{
    RequestTable::Reopening reopening;
    if (requests.DescribeReopening(fileId, &reopening))
        Run(client, requests, std::move(reopening), std::move(release));
}

} // namespace fodr::agent
