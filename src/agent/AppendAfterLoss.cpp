#include "agent/AppendAfterLoss.h"

#include "agent/Coroutine.h"
#include "agent/FileReopening.h"
#include "platform/Nt.h"
#include "platform/NtRecords.h"

#include <algorithm>
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
    const IoResult opened =
        co_await AwaitIo([&](IoHandler done) { share.Create(open, path, std::move(done)); });
    if (opened.Failed())
        co_return false;
    const uint32_t looking = opened.fileId;
    share.Remember(looking, reopen);
    const nt::NTSTATUS same = co_await CheckIdentity(share, looking, *reopen);
    bool whole = !nt::IsError(same);
    while (whole && part->size() < length) {
        const auto piece = static_cast<uint32_t>(std::min<uint64_t>(kPiece, length - part->size()));
        const IoResult read = co_await AwaitIo(
            [&](IoHandler done) { share.Read(looking, from + part->size(), piece, std::move(done)); });
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
        const IoResult told = co_await AwaitIo([&](IoHandler done) {
            share.QueryInformation(fileId, nt::FileNetworkOpenInformation, std::move(done));
        });
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

} // namespace fodr::agent
