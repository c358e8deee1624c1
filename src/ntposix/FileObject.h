// One file or directory that is open: what all its opens share, found by device and inode. Share modes, the
// mark of a pending deletion and the range locks hang here.
//
// Any thread. The object lives until its last OpenFile is destroyed; an inode that is held by a descriptor
// isn't reused, so the key stays true for that long. The lock is taken for a few instructions, never across a
// file call.
#pragma once

#include "lib/misc/Mutex.h"
#include "ntposix/AdvisoryLocks.h"
#include "ntposix/LockTable.h"
#include "platform/NtStatus.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <sys/types.h>
#include <unordered_map>
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
    AdvisoryLocks advisoryLocks;
    Mutex makingStream; // held across the calls that look for a named stream and make it

    // Admits an open: STATUS_SHARING_VIOLATION, STATUS_DELETE_PENDING or success. `extraAccess` are rights
    // that the create itself uses (an overwrite writes) and that aren't granted. `linkCount` is the file's.
    [[nodiscard]] nt::NTSTATUS Admit(OpenFile &open, uint32_t extraAccess, uint32_t linkCount) EXCLUDES(lock);

    // The handle is closed: its share modes go, and its FILE_DELETE_ON_CLOSE becomes a pending deletion. True
    // when it was the last one of a name that is to be deleted: the caller deletes the file, then calls
    // Leave. Until then new opens are refused.
    [[nodiscard]] bool Close(OpenFile &open) EXCLUDES(lock);
    void Leave(OpenFile &open) EXCLUDES(lock);

    // Sets or takes back the mark on every open of the same name.
    void SetDeletePending(const OpenFile &open, bool pending, uint32_t linkCount) EXCLUDES(lock);
    // Marks it if no other open was ever admitted beside this one.
    void DeleteIfAlone(OpenFile &open) EXCLUDES(lock);
    [[nodiscard]] bool IsDeletePending(const OpenFile &open) EXCLUDES(lock);

    // Whether the file is to be deleted under that name.
    [[nodiscard]] bool IsNamePending(const std::string &path) EXCLUDES(lock);

    // Whether anybody has it open, by whatever name.
    [[nodiscard]] bool IsOpen() EXCLUDES(lock);

    // A name was taken away while the file is open. Those that had it have none from now on, also when a
    // link of the file is given that name again; no mark stands on them any more. The first is for who took
    // away what it had open, wherever that was found.
    void NameTaken(OpenFile &open, const std::string &foundAt, uint32_t linkCount) EXCLUDES(lock);
    void NameTaken(const std::string &path, uint32_t linkCount) EXCLUDES(lock);
    [[nodiscard]] bool HasName(const OpenFile &open) EXCLUDES(lock);
    void SetDeleteOnClose(OpenFile &open, bool wanted) EXCLUDES(lock);

    [[nodiscard]] std::string PathOf(const OpenFile &open) EXCLUDES(lock);
    // The open and all others that had its name have the new one.
    void Renamed(const OpenFile &open, const std::string &newPath) EXCLUDES(lock);
    void Renamed(const std::string &oldPath, const std::string &newPath) EXCLUDES(lock);
    // It has more names by now than those that are open knew of.
    void NoteLinks() EXCLUDES(lock);

private:
    friend class FileObjectTable;

    struct ShareCounts {
        uint32_t opens = 0; // those that take part: attribute-only opens don't
        uint32_t readers = 0;
        uint32_t writers = 0;
        uint32_t deleters = 0;
        uint32_t sharedRead = 0;
        uint32_t sharedWrite = 0;
        uint32_t sharedDelete = 0;
    };

    bool FindPending(const std::string &path) REQUIRES(lock);
    bool IsNameOf(const OpenFile &open, const std::string &path) const REQUIRES(lock);
    bool MayShare(uint32_t access, uint32_t share) const REQUIRES(lock);
    void Count(const OpenFile &open, uint32_t step) REQUIRES(lock);
    void MarkName(const OpenFile &open, bool pending) REQUIRES(lock);
    static void TakeName(OpenFile *open);

    Mutex lock;
    // Those that weren't left yet.
    std::vector<OpenFile *> opens GUARDED_BY(lock);
    ShareCounts counts GUARDED_BY(lock);
    bool manyLinks GUARDED_BY(lock) = false;  // then names are told apart by their paths
    bool anyPending GUARDED_BY(lock) = false; // a mark was set; perhaps it is gone again
    bool everShared GUARDED_BY(lock) = false; // two were open at a time
    uint32_t references = 0;                  // by the lock of the table's shard
};

// The file objects of every file that is open, by device and inode. Any thread.
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
