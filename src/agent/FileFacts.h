// What is known of a file, out of the records that carry it. A record too short for its class gives false.
#pragma once

#include "agent/IoResult.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace fodr::agent {

struct FileFacts {
    int64_t creationTime = 0; // 100 ns steps since 1601-01-01 UTC
    int64_t lastAccessTime = 0;
    int64_t lastWriteTime = 0;
    int64_t changeTime = 0;
    int64_t endOfFile = 0;
    int64_t allocationSize = 0;
    uint32_t attributes = 0;
    uint32_t reparseTag = 0;
    // Of hosts that tell them; else 0.
    uint64_t id = 0; // the file's own, the same under all its names
    uint32_t mode = 0;
    uint32_t links = 0;
    uint32_t owner = 0;
    uint32_t group = 0;

    bool IsDirectory() const;
    bool IsReadOnly() const;
    bool IsSymbolicLink() const;               // one that wasn't followed
    void TakeIdentity(const FileFacts &other); // all that a handle's times and sizes leave out
    void DropId();                             // and of a link, that it has a mode
    // Whether the file's content may be another: by its size and its times.
    bool SameContent(const FileFacts &other) const;
};

[[nodiscard]] bool ReadNetworkOpenInformation(ByteSpan record, FileFacts *facts);
// FileStatLxInformation.
[[nodiscard]] bool ReadStatInformation(ByteSpan record, FileFacts *facts);
// FileNameInformation: the path on its volume.
[[nodiscard]] bool ReadNameInformation(ByteSpan record, std::u16string *path);
// What FSCTL_GET_REPARSE_POINT answers for a symbolic link: where it leads, as POSIX writes it.
[[nodiscard]] bool ReadLinkTarget(ByteSpan record, std::string *target);

// FileStreamInformation: the names of streams, without the unnamed one.
[[nodiscard]] bool ReadStreamNames(ByteSpan record, std::vector<std::u16string> *names);

struct VolumeFacts {
    uint64_t totalUnits = 0;
    uint64_t callerFreeUnits = 0;
    uint64_t freeUnits = 0;
    uint64_t bytesPerUnit = 0;
};
[[nodiscard]] bool ReadFullSizeInformation(ByteSpan record, VolumeFacts *facts);

// Goes through the entries of a FileFullDirectoryInformation answer or, of a host that tells ids, of a
// FileBothDirectoryInformation answer, which has them in the place of the short name. Entries may stand at
// any address.
enum class FileIds {
    None, // the other side tells none
    Known,
    Dropped, // it does, and files are known by their names all the same
};

class DirectoryReader {
public:
    DirectoryReader(ByteSpan answer, FileIds fileIds) : rest(answer), ids(fileIds) {}

    struct Entry {
        FileFacts facts;
        ByteSpan name; // UTF-16LE
        void CopyName(std::u16string *to) const;
    };
    // False at the end, and for an entry that leaves the answer: then Malformed says so.
    [[nodiscard]] bool Next(Entry *entry);
    bool Malformed() const { return malformed; }

private:
    ByteSpan rest;
    const FileIds ids;
    bool malformed = false;
};

// Goes through the answers of a pre-read block.
class PreReadReader {
public:
    explicit PreReadReader(ByteSpan block);

    struct Entry {
        uint32_t majorFunction = 0;
        uint32_t informationClass = 0;
        ByteSpan data;
    };
    // False at the end and for an entry that leaves the block.
    [[nodiscard]] bool Next(Entry *entry);

private:
    ByteSpan rest;
    uint32_t left = 0;
};

// Basic and standard facts out of a pre-read block. False unless both are there.
[[nodiscard]] bool ReadPreReadFacts(ByteSpan block, FileFacts *facts);

} // namespace fodr::agent
