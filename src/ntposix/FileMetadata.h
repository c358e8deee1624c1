// What NT knows of a file, from one statx: times, size, attributes, mode. Any thread.
#pragma once

#include "ntposix/FileObject.h"
#include "platform/Nt.h"
#include "platform/NtRecords.h"
#include "platform/NtStatus.h"

#include <cstdint>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <sys/types.h>

namespace fodr::ntposix {

enum class FileKind : uint8_t {
    kFile,
    kDirectory,
    kLink,    // a symbolic link that wasn't followed
    kSpecial, // FIFO, socket or device node: attributes only
};

struct FileMetadata {
    FileKey key;
    uint64_t id = 0;       // of the file among those of its share, see ResolveId; 0: there are no facts
    int64_t birthTime = 0; // ns since 1970; 0: the file system keeps none
    FileKind kind = FileKind::kFile;
    mode_t mode = 0;
    uint32_t owner = 0;
    uint32_t group = 0;
    dev_t node = 0;         // of a device node: the device that it stands for
    uint32_t links = 1;     // a directory has one
    int64_t endOfFile = 0;  // 0 unless a regular file or a link
    int64_t allocation = 0; // bytes on disk
    // Times are 100 ns steps since 1601.
    int64_t creationTime = 0; // the earliest of the others where the file system keeps no birth time
    int64_t lastAccessTime = 0;
    int64_t lastWriteTime = 0;
    int64_t changeTime = 0;
    // Without what follows from the name: that is HiddenByName.
    uint32_t attributes = 0;
};

// 0 or an errno. `fd` may be O_PATH.
[[nodiscard]] int StatDescriptor(int fd, FileMetadata *facts);
// The same for a name below a directory descriptor (or AT_FDCWD).
enum class Links : uint8_t { kFollow, kDontFollow };
[[nodiscard]] int StatAt(int directory, const char *name, Links links, FileMetadata *facts);

// Whether no name leads to the file any more. False as well when the system doesn't say. `fd` may be O_PATH.
[[nodiscard]] bool IsRemoved(int fd);

// Of a file of which nothing is known but its type (S_IFDIR ...; 0: not even that). The id is 0.
[[nodiscard]] FileMetadata FactsOfType(mode_t type);

// The stats above give the id of a file on its share's own device. This makes it another one where the file
// is on another device. No device is given for a file that belongs to no share.
//
// The id is the same for all names of the file as long as it lives, and never 0. Bits 0 to 47 are the inode
// number's. Bits 48 to 62 tell apart the files that have a number one after the other: a hash of the birth
// time and of what the lower bits left out. Bit 63 is set on other devices than the root's, and the device is
// hashed then.
void ResolveId(std::optional<dev_t> rootDevice, FileMetadata *facts);

// FILE_ATTRIBUTE_HIDDEN or 0: a leading dot hides, but in "." and "..".
[[nodiscard]] uint32_t HiddenByName(std::string_view leaf);
// FILE_ATTRIBUTE_NORMAL where there is nothing else to say.
[[nodiscard]] uint32_t CompleteAttributes(uint32_t attributes);

// Hidden and system, which a POSIX file has no bits for: kept in the extended attribute "user.DOSATTRIB", as
// other file servers keep them. Of files and directories; where a file system has no such attributes nothing
// is kept. Any thread.
inline constexpr uint32_t kDosAttributes = 0x6; // FILE_ATTRIBUTE_HIDDEN and FILE_ATTRIBUTE_SYSTEM

// Those of kDosAttributes that are kept. `fd` may be O_PATH.
[[nodiscard]] uint32_t ReadDosAttributes(int fd);
// Keeps those, and leaves what else is kept. Nothing is made for a file that has none. 0 or an errno.
[[nodiscard]] int WriteDosAttributes(int fd, const FileMetadata &facts, uint32_t attributes);

// Mode, owner and group of what is open, also by a descriptor without data rights. 0 or an errno. Any thread.
int SetMode(int fd, mode_t mode);
// Of what was made by others than this machine's users: a program of theirs isn't to run with the rights of
// whoever owns it here. On directories the group bit gives no rights.
mode_t WithoutSetId(mode_t mode, bool directory);
// Of what was just made with this mode: gives it what the umask took. A bit that its directory gave it stays.
int WidenMode(int fd, mode_t mode);
// EINVAL for fields that are not FODR_SET_*. EPERM for a set-id bit that the file doesn't have.
int ChangeMode(int fd, const nt::FODR_MODE_CHANGE &change);

} // namespace fodr::ntposix
