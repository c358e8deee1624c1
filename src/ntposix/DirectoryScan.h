// Reads the entries of an open directory with few system calls and no allocation but its one buffer. Not for
// several threads at once. "." and ".." are left out.
#pragma once

#include "ntposix/InfoBuffer.h"
#include "ntposix/NamePattern.h"
#include "platform/NtStatus.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace fodr::ntposix {

class DirentReader {
public:
    // Listings that are under way at once, in all handles: each keeps what it has read ahead. One more is
    // refused with ENOMEM.
    static constexpr int kMostUnderWay = 1024;

    struct Entry {
        const char *name; // until the next call
        size_t nameLength;
        ino_t inode;
        unsigned char type; // DT_DIR, DT_UNKNOWN ...
    };

    // The descriptor is borrowed; its read position moves.
    explicit DirentReader(int directory) : fd(directory) {}
    ~DirentReader() { FreeBuffer(); }
    DirentReader(const DirentReader &) = delete;
    DirentReader &operator=(const DirentReader &) = delete;

    // Goes back to the first entry. 0 or an errno.
    [[nodiscard]] int Rewind();
    // The next entry; null at the end, or with `*error` set when the directory can't be read.
    const Entry *Next(int *error);
    // Next gives the last entry once more.
    void PutBack() { again = true; }

private:
    bool MakeBuffer();
    void FreeBuffer();

    int fd;
    std::unique_ptr<char[]> buffer; // from the first Next on, until the end was seen
    size_t filled = 0;
    size_t position = 0;
    bool again = false;
    Entry current{};
};

// The position of one directory handle in its listing. Not for several threads at once.
class DirectoryScan {
public:
    // What one call asks for.
    struct Query {
        ListingWriter *records;
        bool needsFacts;
        bool single;
        bool restart;
        std::u16string_view pattern; // empty: none given
    };

    // The descriptor is readable and borrowed; its read position moves. Of the share: the device of its root,
    // see ResolveId, and whether its names differ by case.
    DirectoryScan(int directoryFd, std::optional<dev_t> deviceOfRoot, bool isCaseSensitive)
        : directory(directoryFd), rootDevice(deviceOfRoot), caseSensitive(isCaseSensitive),
          reader(directoryFd)
    {}

    // Appends entries from where the last call stopped. Success means that there is one at least. A read
    // error ends the listing: the call after the last entries tells it, and every later one until a restart.
    nt::NTSTATUS Continue(const Query &query);

private:
    // "." and ".." come first, wherever the file system keeps them.
    enum class Stage { Self, Parent, Named, Others, End };
    enum class Step { Added, Skipped, Full, Truncated };

    nt::NTSTATUS Begin(const Query &query);
    Step Next(const Query &query);
    Step AppendNamed(const Query &query);
    Step AppendOther(const Query &query);
    // `known`: what is known of the entry already; null: nothing but its type.
    Step Append(const Query &query, const char *name, unsigned char type,
                const FileMetadata *known = nullptr);
    Step Fail(int error);
    int Look(const char *name, unsigned char type, FileMetadata *facts) const;

    const int directory;
    const std::optional<dev_t> rootDevice;
    const bool caseSensitive;
    DirentReader reader;
    NamePattern pattern;
    Stage stage = Stage::Self;
    bool begun = false;
    nt::NTSTATUS failure = nt::STATUS_SUCCESS; // what ended the listing before its end
    std::u16string ntName;                     // of the entry at hand; kept for its memory
};

} // namespace fodr::ntposix
