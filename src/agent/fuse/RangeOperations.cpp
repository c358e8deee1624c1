#include "agent/fuse/Operations.h"
#include "agent/fuse/Waits.h"
#include "platform/Nt.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

namespace fodr::agent {
namespace {

template <class Record> ByteSpan BytesOf(const Record &record)
{
    return {reinterpret_cast<const uint8_t *>(&record), sizeof(record)};
}

// Where data, or a hole, is next in a file of `end` bytes. The end counts as a hole.
uint64_t NextOf(int whence, const std::vector<nt::FILE_ALLOCATED_RANGE_BUFFER> &ranges, uint64_t offset,
                uint64_t end)
{
    uint64_t at = offset;
    for (const nt::FILE_ALLOCATED_RANGE_BUFFER &range : ranges) {
        const auto begin = static_cast<uint64_t>(range.FileOffset);
        if (whence == SEEK_DATA)
            return std::max(offset, begin);
        if (begin > at)
            break;
        at = std::max(at, begin + static_cast<uint64_t>(range.Length));
    }
    return whence == SEEK_DATA ? end : std::min(at, end);
}

} // namespace

Task<nt::NTSTATUS> RangeOperations::ZeroRange(RemoteFilePtr file, uint64_t offset, uint64_t length)
{
    const nt::FILE_ZERO_DATA_INFORMATION record = {.FileOffset = static_cast<int64_t>(offset),
                                                   .BeyondFinalZero = static_cast<int64_t>(offset + length)};
    const IoResult result =
        co_await file->share->DeviceControl(file->fileId, nt::FSCTL_SET_ZERO_DATA, BytesOf(record));
    co_return result.status;
}

Task<nt::NTSTATUS> RangeOperations::ReserveRange(RemoteFilePtr file, uint32_t mode, uint64_t offset,
                                                 uint64_t length)
{
    nt::NTSTATUS status = nt::STATUS_NOT_SUPPORTED;
    if (file->share->Has(nt::FODR_HOST_RANGES)) {
        const nt::FODR_ALLOCATION record = {.Mode = mode,
                                            .Reserved = 0,
                                            .Offset = static_cast<int64_t>(offset),
                                            .Length = static_cast<int64_t>(length)};
        const IoResult result =
            co_await file->share->DeviceControl(file->fileId, nt::FSCTL_FODR_ALLOCATE, BytesOf(record));
        status = result.status;
    }
    if (mode == 0 && status == nt::STATUS_NOT_SUPPORTED)
        co_return co_await Grow(file, offset + length);
    co_return status;
}

// Where nothing can be reserved. Files never shrink by this.
Task<nt::NTSTATUS> RangeOperations::Grow(RemoteFilePtr file, uint64_t size)
{
    FileFacts facts;
    const nt::NTSTATUS status = co_await file->share->QueryFacts(file->fileId, &facts);
    if (nt::IsError(status) || (facts.endOfFile >= 0 && static_cast<uint64_t>(facts.endOfFile) >= size))
        co_return status;
    co_return co_await file->share->SetEndOfFile(file->fileId, size);
}

Detached RangeOperations::Allocate(FuseCall::Ptr call, RemoteFilePtr file, int mode, uint64_t offset,
                                   uint64_t length)
{
    const bool punches = mode == (FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE);
    const bool reserves = (mode & ~(FALLOC_FL_KEEP_SIZE | FALLOC_FL_ZERO_RANGE)) == 0;
    if ((!punches && !reserves) || !file->writable) {
        call->Fail(file->writable ? EOPNOTSUPP : EBADF);
        co_return;
    }
    const std::shared_ptr<WriteBehind> writes = file->node->Writes(mount.writeWindow);
    co_await AwaitWrites(writes);
    file->node->NoteOwnChange();
    writes->SizeChanges();
    nt::NTSTATUS status;
    if (punches)
        status = co_await ZeroRange(file, offset, length);
    else
        status = co_await ReserveRange(file, static_cast<uint32_t>(mode), offset, length);
    writes->DataChanged();
    file->node->NoteOwnChange();
    call->FailStatus(status);
}

// Goes on from `*found`. False: the other side has more to tell.
Task<bool> RangeOperations::FindNext(RemoteFilePtr file, int whence, uint64_t end, uint64_t *found)
{
    constexpr size_t kRanges = 16; // that one answer tells
    const nt::FILE_ALLOCATED_RANGE_BUFFER wanted = {.FileOffset = static_cast<int64_t>(*found),
                                                    .Length = static_cast<int64_t>(end - *found)};
    // A host that tells no ranges, or a handle that may not ask: all of it counts as data.
    std::vector<nt::FILE_ALLOCATED_RANGE_BUFFER> ranges = {wanted};
    bool whole = true;
    {
        const IoResult told = co_await file->share->DeviceControl(
            file->fileId, nt::FSCTL_QUERY_ALLOCATED_RANGES, BytesOf(wanted), kRanges * sizeof(wanted));
        whole = told.status != nt::STATUS_BUFFER_OVERFLOW || told.data.size() < sizeof(wanted);
        if (!told.Failed() || !whole) {
            ranges.resize(told.data.size() / sizeof(wanted));
            memcpy(ranges.data(), told.data.data(), ranges.size() * sizeof(wanted));
        }
    }
    const uint64_t before = *found;
    *found = NextOf(whence, ranges, before, end);
    const bool atLast = whence == SEEK_HOLE && !whole && !ranges.empty() &&
                        *found == static_cast<uint64_t>(ranges.back().FileOffset + ranges.back().Length);
    co_return !atLast || *found == before;
}

Detached RangeOperations::Seek(FuseCall::Ptr call, RemoteFilePtr file, uint64_t offset, int whence)
{
    if (whence != SEEK_DATA && whence != SEEK_HOLE) {
        call->Fail(EINVAL);
        co_return;
    }
    co_await AwaitWrites(file->node->Writes(mount.writeWindow));
    FileFacts facts;
    const nt::NTSTATUS status = co_await file->share->QueryFacts(file->fileId, &facts);
    if (nt::IsError(status)) {
        call->FailStatus(status);
        co_return;
    }
    const auto end = static_cast<uint64_t>(std::max<int64_t>(facts.endOfFile, 0));
    if (offset >= end) {
        call->Fail(ENXIO);
        co_return;
    }
    uint64_t found = offset;
    while (!co_await FindNext(file, whence, end, &found)) {
    }
    if (whence == SEEK_DATA && found >= end)
        call->Fail(ENXIO);
    else
        call->Position(found);
}

// Where the host can't, the kernel copies by reading and writing.
Detached RangeOperations::Copy(FuseCall::Ptr call, RemoteFilePtr reader, off_t from, RemoteFilePtr writer,
                               off_t to, size_t length)
{
    if (reader->share != writer->share || !writer->share->Has(nt::FODR_HOST_RANGES) || !reader->readable ||
        !writer->writable) {
        call->Fail(EOPNOTSUPP);
        co_return;
    }
    co_await AwaitWrites(reader->node->Writes(mount.writeWindow));
    const std::shared_ptr<WriteBehind> writes = writer->node->Writes(mount.writeWindow);
    co_await AwaitWrites(writes);
    writer->node->NoteOwnChange();
    writes->SizeChanges();
    const nt::FODR_RANGE_COPY range = {.Source = 0,
                                       .SourceOffset = from,
                                       .TargetOffset = to,
                                       .Length = static_cast<int64_t>(std::min<size_t>(length, INT64_MAX))};
    const IoResult copied = co_await writer->share->CopyRange(writer->fileId, reader->fileId, range);
    writes->DataChanged();
    writer->node->NoteOwnChange();
    const bool counted = copied.data.size() == sizeof(uint64_t);
    if (copied.Failed() || !counted)
        call->Fail(copied.status == nt::STATUS_DISK_FULL ? ENOSPC : EOPNOTSUPP);
    else
        call->Written(LoadLittle<uint64_t>(copied.data.data()));
}

} // namespace fodr::agent
