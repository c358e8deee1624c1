// The file objects of every file that is open, by device and inode. Any thread.
#pragma once

#include "lib/misc/Mutex.h"
#include "ntposix/FileObject.h"

#include <array>
#include <cstddef>
#include <memory>
#include <unordered_map>

namespace fodr::ntposix {

class FileObjectTable {
public:
    static FileObjectTable &Instance();

    // The object of the file, made when it is the first open. The caller owns a reference.
    [[nodiscard]] FileObject *Acquire(FileKey key);
    // The same when the file is open already, else null.
    [[nodiscard]] FileObject *Find(FileKey key);
    // Gives a reference back; the last one destroys the object.
    void Release(FileObject *object);

private:
    struct HashOfKey {
        size_t operator()(const FileKey &key) const { return key.inode * 0x9E3779B97F4A7C15u ^ key.device; }
    };
    struct alignas(64) Shard {
        Mutex lock;
        std::unordered_map<FileKey, std::unique_ptr<FileObject>, HashOfKey> objects GUARDED_BY(lock);
    };

    Shard &ShardOf(FileKey key) { return shards[HashOfKey()(key) >> 58]; }

    std::array<Shard, 64> shards;
};

// A reference that ends with its scope.
class FileObjectRef {
public:
    explicit FileObjectRef(FileObject *held) : object(held) {}
    ~FileObjectRef()
    {
        if (object)
            FileObjectTable::Instance().Release(object);
    }
    FileObjectRef(const FileObjectRef &) = delete;
    FileObjectRef &operator=(const FileObjectRef &) = delete;
    explicit operator bool() const { return object != nullptr; }
    FileObject *operator->() const { return object; }

private:
    FileObject *object;
};

} // namespace fodr::ntposix
