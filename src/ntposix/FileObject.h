// One file or directory that is open: what all its opens share, found by device and inode. Share modes, the
// mark of a pending deletion and the range locks hang here.
//
// Any thread. The object lives until its last OpenFile is destroyed; an inode that is held by a descriptor
// isn't reused, so the key stays true for that long.
#pragma once

#include "ntposix/LockTable.h"
#include "ntposix/Mutex.h"

#include <cstdint>
#include <sys/types.h>
#include <vector>

namespace fodr::ntposix {

class OpenFile;

struct FileKey {
    dev_t device = 0;
    ino_t inode = 0;
    bool operator==(const FileKey &) const = default;
};

class FileObject {
public:
    explicit FileObject(FileKey fileKey) : key(fileKey) {}
    FileObject(const FileObject &) = delete;
    FileObject &operator=(const FileObject &) = delete;

    const FileKey key;

    LockTable locks;

    // Taken for a few instructions, never across a file call.
    Mutex lock;
    // Those whose handle isn't closed yet.
    std::vector<OpenFile *> opens GUARDED_BY(lock);

private:
    friend class FileObjectTable;

    uint32_t references = 0; // by the table's shard lock
};

} // namespace fodr::ntposix
