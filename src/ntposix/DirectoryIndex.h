// The names of one directory by their folded form. Not safe for several threads: its user holds `lock`.
#pragma once

#include "lib/misc/Mutex.h"
#include "ntposix/FileObject.h"

#include <time.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace fodr::ntposix {

// Two POSIX names are one name for NT when their NT forms differ in case alone.
[[nodiscard]] uint64_t FoldedHash(std::string_view name);
[[nodiscard]] bool EqualsIgnoringCase(std::string_view a, std::string_view b);

// A name that came or went, as the kernel told.
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
    bool watched GUARDED_BY(lock) = false; // the kernel tells every change, else the stamp has to tell
    DirectoryStamp stamp GUARDED_BY(lock);

private:
    void Add(std::string_view name) REQUIRES(lock);
    void Remove(std::string_view name) REQUIRES(lock);

    std::unordered_multimap<uint64_t, std::string> names GUARDED_BY(lock);
};

} // namespace fodr::ntposix
