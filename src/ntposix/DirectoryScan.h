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
    Step Append(const Query &query, const char *name, unsigned char type, const FileFacts *known = nullptr);
    Step Fail(int error);
    int Look(const char *name, unsigned char type, FileFacts *facts) const;

    const int directory;
    const std::optional<dev_t> rootDevice;
    const bool caseSensitive;
    DirectoryReader reader;
    NamePattern pattern;
    Stage stage = Stage::Self;
    bool begun = false;
    nt::NTSTATUS failure = nt::STATUS_SUCCESS; // what ended the listing before its end
    std::u16string ntName;                     // of the entry at hand; kept for its memory
};

} // namespace fodr::ntposix
