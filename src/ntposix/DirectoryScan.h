// The position of one directory handle in its listing. Not for several threads at once.
#pragma once

#include "ntposix/DirectoryReader.h"
#include "ntposix/ListingBuffer.h"
#include "ntposix/NamePattern.h"
#include "platform/NtStatus.h"

#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace fodr::ntposix {

class DirectoryScan {
public:
    // What one call asks for.
    struct Query {
        ListingBuffer *records;
        bool needsFacts;
        bool single;
        bool restart;
        std::u16string_view pattern; // empty: none given
    };

    // The descriptor is readable and borrowed; its read position moves. The device is that of the share's
    // root, see ResolveId.
    DirectoryScan(int directoryFd, std::optional<dev_t> deviceOfRoot)
        : directory(directoryFd), rootDevice(deviceOfRoot), reader(directoryFd)
    {}

    // Appends entries from where the last call stopped. Success means that there is one at least.
    nt::NTSTATUS Continue(const Query &query);

private:
    // "." and ".." come first, wherever the file system keeps them.
    enum class Stage { Self, Parent, Named, Others, End };
    enum class Step { Added, Skipped, Full, Truncated };

    nt::NTSTATUS Begin(const Query &query);
    Step Next(const Query &query, int *error);
    Step AppendNamed(const Query &query);
    Step AppendOther(const Query &query, int *error);
    Step Append(const Query &query, const char *name, unsigned char type);
    bool FactsOf(const char *name, unsigned char type, FileFacts *facts) const;

    const int directory;
    const std::optional<dev_t> rootDevice;
    DirectoryReader reader;
    NamePattern pattern;
    Stage stage = Stage::Self;
    bool begun = false;
    std::u16string ntName; // of the entry at hand; kept for its memory
};

} // namespace fodr::ntposix
