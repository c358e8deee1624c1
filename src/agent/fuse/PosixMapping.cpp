#include "agent/fuse/PosixMapping.h"

#include "agent/IoResult.h"
#include "lib/misc/FileTime.h"
#include "platform/Nt.h"
#include "platform/NtRecords.h"
#include "rdpdr/wire/WireLayout.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

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
    const bool real = owner.real && facts.mode != 0;
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

namespace {

struct StatusErrno {
    nt::NTSTATUS status;
    int error;
};

// In the order of the values, which the search relies on.
constexpr StatusErrno kStatusErrno[] = {
    {nt::STATUS_BUFFER_OVERFLOW, EOVERFLOW},
    {nt::STATUS_NO_MORE_FILES, ENOENT},
    {nt::STATUS_STOPPED_ON_SYMLINK, ELOOP},
    {nt::STATUS_UNSUCCESSFUL, EIO},
    {nt::STATUS_NOT_IMPLEMENTED, EOPNOTSUPP},
    {nt::STATUS_INVALID_INFO_CLASS, EOPNOTSUPP},
    {nt::STATUS_INFO_LENGTH_MISMATCH, EIO},
    {nt::STATUS_INVALID_HANDLE, EBADF},
    {nt::STATUS_INVALID_PARAMETER, EINVAL},
    {nt::STATUS_NO_SUCH_FILE, ENOENT},
    {nt::STATUS_INVALID_DEVICE_REQUEST, EOPNOTSUPP},
    {nt::STATUS_END_OF_FILE, ENODATA},
    {nt::STATUS_NO_MEMORY, ENOMEM},
    {nt::STATUS_ACCESS_DENIED, EACCES},
    {nt::STATUS_BUFFER_TOO_SMALL, EOVERFLOW},
    {nt::STATUS_OBJECT_NAME_INVALID, EINVAL},
    {nt::STATUS_OBJECT_NAME_NOT_FOUND, ENOENT},
    {nt::STATUS_OBJECT_NAME_COLLISION, EEXIST},
    {nt::STATUS_OBJECT_PATH_NOT_FOUND, ENOENT},
    {nt::STATUS_OBJECT_PATH_SYNTAX_BAD, EINVAL},
    {nt::STATUS_SHARING_VIOLATION, EBUSY},
    {nt::STATUS_QUOTA_EXCEEDED, EDQUOT},
    {nt::STATUS_EAS_NOT_SUPPORTED, EOPNOTSUPP},
    {nt::STATUS_FILE_LOCK_CONFLICT, EAGAIN},
    {nt::STATUS_LOCK_NOT_GRANTED, EAGAIN},
    {nt::STATUS_DELETE_PENDING, ENOENT},
    {nt::STATUS_PRIVILEGE_NOT_HELD, EPERM},
    {nt::STATUS_RANGE_NOT_LOCKED, EINVAL},
    {nt::STATUS_DISK_FULL, ENOSPC},
    {STATUS_FILE_INVALID, ESTALE},
    {nt::STATUS_INSUFFICIENT_RESOURCES, ENOMEM},
    {nt::STATUS_MEDIA_WRITE_PROTECTED, EROFS},
    {STATUS_IO_TIMEOUT, EIO},
    {nt::STATUS_FILE_IS_A_DIRECTORY, EISDIR},
    {nt::STATUS_NOT_SUPPORTED, EOPNOTSUPP},
    {nt::STATUS_BAD_NETWORK_PATH, ENOENT},
    {STATUS_INVALID_NETWORK_RESPONSE, EIO},
    {nt::STATUS_NOT_SAME_DEVICE, EXDEV},
    {nt::STATUS_DIRECTORY_NOT_EMPTY, ENOTEMPTY},
    {nt::STATUS_NOT_A_DIRECTORY, ENOTDIR},
    {nt::STATUS_NAME_TOO_LONG, ENAMETOOLONG},
    {nt::STATUS_TOO_MANY_OPENED_FILES, EMFILE},
    {nt::STATUS_CANCELLED, EINTR},
    {nt::STATUS_CANNOT_DELETE, EPERM},
    {nt::STATUS_FILE_DELETED, ENOENT},
    {nt::STATUS_FILE_CLOSED, EBADF},
    {nt::STATUS_IO_DEVICE_ERROR, EIO},
    {nt::STATUS_INVALID_LOCK_RANGE, EINVAL},
    {STATUS_CONNECTION_DISCONNECTED, EIO},
    {nt::STATUS_TOO_MANY_LINKS, EMLINK},
    {nt::STATUS_NOT_A_REPARSE_POINT, EINVAL},
    {nt::STATUS_REPARSE_POINT_NOT_RESOLVED, ELOOP},
    {nt::STATUS_DEVICE_REMOVED, ENODEV},
    {nt::STATUS_FILE_TOO_LARGE, EFBIG},
};

constexpr bool StatusesRise()
{
    for (size_t i = 1; i < std::size(kStatusErrno); ++i) {
        if (kStatusErrno[i - 1].status >= kStatusErrno[i].status)
            return false;
    }
    return true;
}
static_assert(StatusesRise());

} // namespace

int ErrnoOfStatus(nt::NTSTATUS status)
{
    if (!nt::IsError(status))
        return 0;
    const StatusErrno *found =
        std::lower_bound(std::begin(kStatusErrno), std::end(kStatusErrno), status,
                         [](const StatusErrno &row, nt::NTSTATUS wanted) { return row.status < wanted; });
    return found != std::end(kStatusErrno) && found->status == status ? found->error : EIO;
}

bool SaysAbsent(nt::NTSTATUS status)
{
    return status == nt::STATUS_OBJECT_NAME_NOT_FOUND || status == nt::STATUS_NO_SUCH_FILE ||
           status == nt::STATUS_NO_MORE_FILES || status == nt::STATUS_OBJECT_PATH_NOT_FOUND ||
           status == nt::STATUS_DELETE_PENDING || status == nt::STATUS_FILE_DELETED ||
           status == nt::STATUS_OBJECT_NAME_INVALID;
}

bool SaysNoSuchFolder(nt::NTSTATUS status)
{
    return SaysAbsent(status) || status == nt::STATUS_NOT_A_DIRECTORY;
}

bool SaysStaleHandle(nt::NTSTATUS status)
{
    return status == nt::STATUS_INVALID_HANDLE || status == STATUS_FILE_INVALID;
}

} // namespace fodr::agent
