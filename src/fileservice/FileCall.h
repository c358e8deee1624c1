// What the file calls of FileSystemImpl have in common.
#pragma once

#include "lib/misc/ByteBuffer.h"
#include "platform/Nt.h"
#include "platform/NtRecords.h"
#include "rdpdr/wire/WireLayout.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

namespace fodr {

inline nt::HANDLE HandleOf(uint32_t fileId)
{
    return reinterpret_cast<nt::HANDLE>(static_cast<uintptr_t>(fileId));
}

// Units that a UNICODE_STRING holds with its terminator. A longer text would be cut without notice and name
// something else.
inline constexpr size_t kLongestNtText = 32766;

inline void Clear(nt::IO_STATUS_BLOCK *ioStatus)
{
    ioStatus->Pointer = nullptr;
    ioStatus->Information = 0;
}

// A Windows error code as a status; what isn't above 0 stands for itself.
inline nt::NTSTATUS StatusOfError(uint32_t error)
{
    auto code = static_cast<int32_t>(error);
    return code > 0 ? nt::NtStatus(0xC0070000 | (error & 0xFFFF)) : code;
}

// Waits for a call that was started with the event and returned `status`; gives the status it ended with.
inline nt::NTSTATUS FinishCall(nt::NTSTATUS status, const nt::NtCallEvent &event,
                               const nt::IO_STATUS_BLOCK *ioStatus)
{
    if (status != nt::STATUS_PENDING)
        return status;
    nt::NTSTATUS waited = nt::NtWaitForSingleObject(event.Handle(), false, nullptr);
    return nt::IsError(waited) ? waited : ioStatus->Status;
}

// Makes the event, runs `call` with it and waits for the end. Without an event nothing is done.
template <class Call> nt::NTSTATUS CallAndWait(nt::IO_STATUS_BLOCK *ioStatus, Call call)
{
    Clear(ioStatus);
    nt::NtCallEvent event;
    if (uint32_t error = event.Create())
        return StatusOfError(error);
    return FinishCall(call(event.Handle()), event, ioStatus);
}

// A result buffer that starts at `firstSize` bytes and grows by 1024 for as long as `query(buffer, size)`
// finds it too short. The bytes are zeroed: a query leaves gaps between its fields, and what a heap held
// before must not go out on the wire.
template <class Query>
nt::NTSTATUS QueryGrowing(MallocBuffer &buffer, uint32_t firstSize, nt::IO_STATUS_BLOCK *ioStatus,
                          Query query)
{
    constexpr uint32_t kStep = 1024;
    uint32_t size = firstSize;
    for (;;) {
        Clear(ioStatus);
        buffer = MallocBuffer::AllocateZeroed(size);
        if (!buffer)
            return nt::STATUS_NO_MEMORY;
        nt::NTSTATUS status = query(buffer.Data(), size);
        if (status != nt::STATUS_INFO_LENGTH_MISMATCH) {
            ioStatus->Information = std::min<uint64_t>(ioStatus->Information, size);
            return status;
        }
        if (size > std::numeric_limits<uint32_t>::max() - kStep)
            return nt::STATUS_NO_MEMORY;
        size += kStep;
        buffer.Reset();
    }
}

// The wire record has no byte of padding before the label: it moves down by one, and the length with it. A
// label length that the record doesn't hold is cut.
inline void MoveVolumeLabel(uint8_t *record, uint64_t *length)
{
    constexpr size_t kLabel = offsetof(nt::FILE_FS_VOLUME_INFORMATION, VolumeLabel);
    if (*length == 0)
        return;
    if (*length > kLabel) {
        size_t labelLength =
            LoadLittle<uint32_t>(record + offsetof(nt::FILE_FS_VOLUME_INFORMATION, VolumeLabelLength));
        memmove(record + kLabel - 1, record + kLabel, std::min<size_t>(labelLength, *length - kLabel));
    }
    *length -= 1;
}

} // namespace fodr
