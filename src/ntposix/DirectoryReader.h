// Reads the entries of an open directory with few system calls and no allocation but its one buffer. Not for
// several threads at once. "." and ".." are left out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <sys/types.h>

namespace fodr::ntposix {

class DirectoryReader {
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
    explicit DirectoryReader(int directory) : fd(directory) {}
    ~DirectoryReader() { FreeBuffer(); }
    DirectoryReader(const DirectoryReader &) = delete;
    DirectoryReader &operator=(const DirectoryReader &) = delete;

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

} // namespace fodr::ntposix
