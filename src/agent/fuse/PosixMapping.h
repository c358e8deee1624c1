// NT facts as POSIX shows them, and back. Any thread.
#pragma once

#include "agent/FileFacts.h"
#include "platform/NtStatus.h"

#include <string_view>
#include <sys/stat.h>

namespace fodr::agent {

// Who owns everything in the mount; or, if `real`, what a file's own numbers stand for where its host tells
// none.
struct Owner {
    uid_t uid = 0;
    gid_t gid = 0;
    bool real = false;
};

// The inode number and the mode are the other side's, where its host tells ids; else `inode`, and 0755 or,
// for read-only files, 0555.
struct stat StatOf(const FileFacts &facts, uint64_t inode, const Owner &owner);
// Of a file with that id. The high bits are no part of it, but for files of another file system than their
// share's.
uint64_t InodeOf(uint64_t fileId);

timespec TimeOfNt(int64_t ntTime);
// Never one of the values that a set takes for "leave it" (0, -1, -2).
int64_t NtTimeOf(const timespec &time);

// The set form of FileBasicInformation: 0 leaves a time or the attributes alone.
struct BasicChange {
    int64_t lastAccessTime = 0;
    int64_t lastWriteTime = 0;
    uint32_t attributes = 0;
};
std::array<uint8_t, 36> BasicRecord(const BasicChange &change);

// What an NT status is to a POSIX program. Any thread.

// 0 for a success, else an errno; EIO for what has no better one.
int ErrnoOfStatus(nt::NTSTATUS status);

// Whether it says that nothing has the name.
bool SaysAbsent(nt::NTSTATUS status);
// Of what a folder was asked for: it is absent, or its name is that of a file by now.
bool SaysNoSuchFolder(nt::NTSTATUS status);
// The handle is of no use any more, as after a lost connection; nothing was done with it. Another one may be.
bool SaysStaleHandle(nt::NTSTATUS status);

} // namespace fodr::agent
