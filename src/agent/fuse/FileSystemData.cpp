// Reading and writing what is open.
#include "agent/fuse/FileSystem.h"

#include <fcntl.h>

#include <cerrno>

namespace fodr::agent {

void FileSystem::Read(FuseCall::Ptr call, uint64_t handle, uint64_t offset, uint32_t length)
{
    const OpenFilePtr &file = openFiles.Of(handle);
    if (!file->readable) {
        call->Fail(EBADF);
        return;
    }
    // What is being written there is read as it will be.
    file->node->Writes(writeWindow)->WhenRangeDone(offset, length, [call, file, offset, length] {
        file->readAhead->Read(offset, length, [call](nt::NTSTATUS status, std::span<const ByteSpan> parts) {
            if (nt::IsError(status))
                call->FailStatus(status);
            else
                call->Parts(parts);
        });
    });
}

void FileSystem::Write(FuseCall::Ptr call, uint64_t handle, uint64_t offset, ByteSpan bytes, int flags)
{
    const OpenFilePtr &file = openFiles.Of(handle);
    if (!file->writable) {
        call->Fail(EBADF);
        return;
    }
    const nt::NTSTATUS earlier = file->errors->TakeForWrite();
    if (nt::IsError(earlier)) {
        call->FailStatus(earlier);
        return;
    }
    file->node->NoteOwnChange();
    const std::shared_ptr<WriteBehind> writes = file->node->Writes(writeWindow);
    auto accepted = [call, size = bytes.size()] { call->Written(size); };
    if (flags & O_APPEND)
        writes->Append(file->Target(), bytes, std::move(accepted));
    else
        writes->Write(file->Target(), offset, bytes, std::move(accepted));
}

// Of flush and fsync alike: nothing counts as written that the other side hasn't acknowledged.
void FileSystem::Flush(FuseCall::Ptr call, uint64_t handle)
{
    const OpenFilePtr &file = openFiles.Of(handle);
    file->node->Writes(writeWindow)->WhenDone([call, errors = file->errors] {
        call->FailStatus(errors->TakeForFlush());
    });
}

// The call may be null: the kernel never got the handle.
void FileSystem::Release(FuseCall::Ptr call, uint64_t handle)
{
    const OpenFilePtr file = openFiles.Drop(handle);
    // Counted from now on, so that a rename that follows waits for it.
    file->node->opens.BeginClose();
    file->released = true;
    file->node->opens.Remove(file);
    // Holds the file until its writes are over.
    file->node->Writes(writeWindow)->WhenDone([file] {
        if (file->writable)
            file->node->NoteOwnChange();
    });
    CloseDeletion(file->node, file->share);
    if (call)
        call->Done();
}

} // namespace fodr::agent
