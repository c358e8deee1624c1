// What every NT call begins and ends with. Any thread.
#pragma once

#include "platform/Nt.h"
#include "platform/NtStatus.h"

#include <cstdint>
#include <cstring>
#include <new>

namespace fodr::ntposix {

inline nt::NTSTATUS Complete(nt::IO_STATUS_BLOCK *ioStatus, nt::NTSTATUS status, uint64_t information)
{
    ioStatus->Status = status;
    ioStatus->Information = information;
    return status;
}

// Nothing throws past a call. What little a call allocates can fail in theory.
template <typename Call> nt::NTSTATUS WithoutThrowing(Call call) noexcept
{
    try {
        return call();
    } catch (const std::bad_alloc &) {
        return nt::STATUS_INSUFFICIENT_RESOURCES;
    }
}

// Callers' buffers needn't be aligned.
template <typename Record> Record LoadRecord(const void *buffer)
{
    Record record;
    memcpy(&record, buffer, sizeof(record));
    return record;
}

// NT statuses for errno values.

// For a failed call on a name or descriptor. An errno that isn't known is STATUS_UNSUCCESSFUL.
[[nodiscard]] nt::NTSTATUS StatusOfErrno(int error);

} // namespace fodr::ntposix
