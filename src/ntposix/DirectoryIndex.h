// The names of one directory by their folded form. Not safe for several threads: its user holds `lock`.
#pragma once

#include "lib/misc/Fd.h"
#include "lib/misc/Mutex.h"
#include "ntposix/FileObject.h"

#include <time.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace fodr::ntposix {

// Two POSIX names are one name for NT when their NT forms differ in case alone.
[[nodiscard]] uint64_t FoldedHash(std::string_view name);
[[nodiscard]] bool EqualsIgnoringCase(std::string_view a, std::string_view b);

// A name that came or went, as the kernel reported it.
struct NameChange {
    bool added;
    std::string name;
};

// When a directory was last changed.
struct DirectoryStamp {
    int64_t modified = 0; // ns
    int64_t changed = 0;
    bool operator==(const DirectoryStamp &) const = default;
};

class DirectoryIndex {
public:
    explicit DirectoryIndex(FileKey directoryKey) : key(directoryKey) {}

    const FileKey key;
    Mutex lock;

    // The name as it is spelled in the directory: the exact one if it is there, else the one that differs in
    // case alone; of several the smallest.
    [[nodiscard]] std::optional<std::string> Find(std::string_view name) const REQUIRES(lock);
    void Apply(const std::vector<NameChange> &changes) REQUIRES(lock);
    // Reads the directory anew. 0 or an errno, with no names then.
    [[nodiscard]] int Scan(int directory) REQUIRES(lock);
    void Clear() REQUIRES(lock);
    size_t Size() const REQUIRES(lock) { return names.size(); }

    bool built GUARDED_BY(lock) = false;
    bool watched GUARDED_BY(lock) = false; // the kernel reports every change; else the stamp shows it
    DirectoryStamp stamp GUARDED_BY(lock);

private:
    void Add(std::string_view name) REQUIRES(lock);
    void Remove(std::string_view name) REQUIRES(lock);

    std::unordered_multimap<uint64_t, std::string> names GUARDED_BY(lock);
};

// The directory indexes in use, kept true by inotify. Where the kernel can't tell every change (a file system
// that others change behind its back, no watch to be had), an index counts only while the directory's time
// stamps are what they were at the scan, and only when they had been standing still for long enough then that
// a later change must show in them.
//
// Any thread.

// The names of a directory, locked for one look and what follows from it: while the lease lasts no other
// lease on the directory begins. Who creates a name holds one, so that of two creates that differ in case
// alone the second finds the first.
class DirectoryLease {
public:
    // `directory` may be O_PATH and is borrowed.
    explicit DirectoryLease(int directoryFd);
    ~DirectoryLease();
    DirectoryLease(const DirectoryLease &) = delete;
    DirectoryLease &operator=(const DirectoryLease &) = delete;

    // 0, or the errno of what kept the directory from being read, short of permission.
    [[nodiscard]] int Error() const { return error; }
    // The spelling of a present name that is the given one or differs from it in case alone. Where the
    // directory can't be read only its exact spelling is known to anyone, and nothing is found.
    [[nodiscard]] std::optional<std::string> Find(std::string_view name) const NO_THREAD_SAFETY_ANALYSIS;

private:
    void Refresh() NO_THREAD_SAFETY_ANALYSIS;
    void Rebuild() NO_THREAD_SAFETY_ANALYSIS;

    const int directory;
    std::shared_ptr<DirectoryIndex> index; // null when the directory couldn't even be looked at
    int error = 0;
};

// What the leases share.
class DirectoryIndexes {
public:
    static DirectoryIndexes &Instance();

    [[nodiscard]] std::shared_ptr<DirectoryIndex> Get(FileKey key) EXCLUDES(lock);
    // What happened to a directory since the last call. Without a value something may have been missed.
    [[nodiscard]] std::optional<std::vector<NameChange>> TakeChanges(FileKey key) EXCLUDES(lock);
    // Reports changes from now on. False when that can't be done.
    [[nodiscard]] bool Watch(FileKey key, int directory) EXCLUDES(lock);
    // Makes room by the least recently used. `size` is how many names the directory's index has now.
    void NoteSize(FileKey key, size_t size) EXCLUDES(lock);

private:
    struct KeyHash {
        size_t operator()(const FileKey &key) const { return key.inode * 31 + key.device; }
    };
    struct Entry {
        std::shared_ptr<DirectoryIndex> index;
        std::vector<NameChange> changes;
        size_t size = 0;
        uint64_t lastUse = 0;
        int watch = -1;
        bool missed = false;
    };

    // Both: false when events were lost.
    bool ReadEvents() REQUIRES(lock);
    bool Dispatch(const char *events, size_t length) REQUIRES(lock);
    void EvictOne() REQUIRES(lock);

    Mutex lock; // after that of a DirectoryIndex
    Fd inotify GUARDED_BY(lock);
    std::unordered_map<FileKey, Entry, KeyHash> entries GUARDED_BY(lock);
    std::unordered_map<int, FileKey> watches GUARDED_BY(lock);
    uint64_t uses GUARDED_BY(lock) = 0;
    size_t names GUARDED_BY(lock) = 0;
};

} // namespace fodr::ntposix
