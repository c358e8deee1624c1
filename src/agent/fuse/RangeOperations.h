// Ranges of open files: space, holes, and bytes that are copied within the host. `handle` is what Opened or
// Created gave.
#pragma once

#include "agent/fuse/MountState.h"

namespace fodr::agent {

class RangeOperations {
public:
    explicit RangeOperations(MountState &mountState) : mount(mountState) {}

    // As fallocate(2).
    Detached Allocate(FuseCall::Ptr call, uint64_t handle, int mode, uint64_t offset, uint64_t length);
    // As lseek(2) with SEEK_DATA or SEEK_HOLE.
    Detached Seek(FuseCall::Ptr call, uint64_t handle, uint64_t offset, int whence);
    // As copy_file_range(2).
    Detached Copy(FuseCall::Ptr call, uint64_t source, off_t from, uint64_t target, off_t to, size_t length);

private:
    Task<nt::NTSTATUS> ZeroRange(OpenFilePtr file, uint64_t offset, uint64_t length);
    Task<nt::NTSTATUS> ReserveRange(OpenFilePtr file, uint32_t mode, uint64_t offset, uint64_t length);
    Task<bool> FindNext(OpenFilePtr file, int whence, uint64_t end, uint64_t *found);
    Task<nt::NTSTATUS> Grow(OpenFilePtr file, uint64_t size);

    MountState &mount;
};

} // namespace fodr::agent
