#include "agent/fuse/Attributes.h"

#include "lib/misc/FileTime.h"
#include "platform/Nt.h"
#include "platform/NtRecords.h"
#include "rdpdr/wire/WireLayout.h"

namespace fodr::agent {
namespace {

constexpr blksize_t kBlockSize = 128 << 10; // what a program should read and write at once

} // namespace

timespec TimeOfNt(int64_t ntTime)
{
    int64_t seconds = ntTime / kFileTimePerSecond;
    int64_t ticks = ntTime % kFileTimePerSecond;
    if (ticks < 0) {
        ticks += kFileTimePerSecond;
        --seconds;
    }
    return {.tv_sec = seconds - kFileTimeEpochSeconds, .tv_nsec = ticks * 100};
}

int64_t NtTimeOf(const timespec &time)
{
    constexpr int64_t kLatest = INT64_MAX / kFileTimePerSecond - kFileTimeEpochSeconds - 1;
    if (time.tv_sec > kLatest)
        return INT64_MAX;
    if (time.tv_sec < -kFileTimeEpochSeconds)
        return 1;
    const int64_t ntTime = (time.tv_sec + kFileTimeEpochSeconds) * kFileTimePerSecond + time.tv_nsec / 100;
    return ntTime > 0 ? ntTime : 1;
}

uint64_t InodeOf(uint64_t fileId)
{
    constexpr uint64_t kOtherFileSystem = 1ull << 63;
    constexpr uint64_t kInodeBits = (1ull << 48) - 1;
    return fileId & kOtherFileSystem ? fileId : fileId & kInodeBits;
}

struct stat StatOf(const FileFacts &facts, uint64_t inode, const Owner &owner)
{
    struct stat result = {};
    const bool directory = facts.IsDirectory();
    result.st_ino = facts.id != 0 ? InodeOf(facts.id) : inode;
    result.st_nlink = facts.id != 0 ? facts.links : 1;
    const bool real = owner.real && facts.id != 0;
    result.st_uid = real ? facts.owner : owner.uid;
    result.st_gid = real ? facts.group : owner.gid;
    // What has no mode: the attribute says nothing about what may be done in a folder (MS-FSCC 2.6).
    const bool hasMode = (facts.id != 0 && facts.mode != 0) || (facts.mode & 07777) != 0;
    if (facts.id != 0 && facts.IsSymbolicLink())
        result.st_mode = S_IFLNK | 0777;
    else if (hasMode)
        result.st_mode = (facts.mode & 07777) | (directory ? S_IFDIR : facts.mode & S_IFMT);
    else if (directory)
        result.st_mode = S_IFDIR | 0755;
    else if ((facts.mode & S_IFMT) != 0 && !S_ISREG(facts.mode))
        result.st_mode = facts.mode | 0644;
    else
        result.st_mode = S_IFREG | (facts.IsReadOnly() ? 0555 : 0755);
    result.st_size = directory ? 0 : facts.endOfFile;
    result.st_blocks = (facts.allocationSize + 511) / 512;
    result.st_blksize = kBlockSize;
    result.st_atim = TimeOfNt(facts.lastAccessTime);
    result.st_mtim = TimeOfNt(facts.lastWriteTime);
    result.st_ctim = TimeOfNt(facts.changeTime ? facts.changeTime : facts.lastWriteTime);
    return result;
}

std::array<uint8_t, 36> BasicRecord(const BasicChange &change)
{
    std::array<uint8_t, 36> record{};
    StoreLittle(&record[offsetof(nt::FILE_BASIC_INFORMATION, LastAccessTime)], change.lastAccessTime);
    StoreLittle(&record[offsetof(nt::FILE_BASIC_INFORMATION, LastWriteTime)], change.lastWriteTime);
    StoreLittle(&record[offsetof(nt::FILE_BASIC_INFORMATION, FileAttributes)], change.attributes);
    return record;
}

} // namespace fodr::agent
