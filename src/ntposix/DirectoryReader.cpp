#include "ntposix/DirectoryReader.h"

#include <dirent.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>

namespace fodr::ntposix {

namespace {

constexpr size_t kBufferSize = 64 * 1024;

std::atomic<int> underWay{0};

bool IsSelfOrParent(const char *name)
{
    return name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0));
}

} // namespace

bool DirectoryReader::MakeBuffer()
{
    if (underWay.fetch_add(1) >= kMostUnderWay) {
        --underWay;
        return false;
    }
    buffer.reset(new (std::nothrow) char[kBufferSize]);
    underWay -= !buffer;
    return buffer != nullptr;
}

void DirectoryReader::FreeBuffer()
{
    underWay -= buffer != nullptr;
    buffer.reset();
}

int DirectoryReader::Rewind()
{
    filled = position = 0;
    again = false;
    return lseek(fd, 0, SEEK_SET) == 0 ? 0 : errno;
}

const DirectoryReader::Entry *DirectoryReader::Next(int *error)
{
    *error = 0;
    if (again) {
        again = false;
        return &current;
    }
    for (;;) {
        if (position == filled) {
            if (!buffer && !MakeBuffer()) {
                *error = ENOMEM;
                return nullptr;
            }
            const ssize_t got = getdents64(fd, buffer.get(), kBufferSize);
            if (got <= 0) {
                // A directory that was removed meanwhile has no entries.
                *error = got < 0 && errno != ENOENT ? errno : 0;
                filled = position = 0;
                FreeBuffer();
                return nullptr;
            }
            filled = static_cast<size_t>(got);
            position = 0;
        }
        const auto *entry = reinterpret_cast<const dirent64 *>(buffer.get() + position);
        position += entry->d_reclen;
        if (!IsSelfOrParent(entry->d_name)) {
            current = {entry->d_name, strlen(entry->d_name), entry->d_ino, entry->d_type};
            return &current;
        }
    }
}

} // namespace fodr::ntposix
