// What listing, change notification and waiting calls keep for one open handle. Any thread.
//
// OpenFile holds one. NtClose calls Close first of all: before the locks of the handle fall
// (LockTable::ReleaseAll, of the FileObject) and before its descriptor is closed.
#pragma once

#include "lib/misc/Fd.h"
#include "lib/misc/Mutex.h"
#include "ntposix/BlockedCall.h"
#include "ntposix/FileMetadata.h"
#include "ntposix/FileObject.h"
#include "ntposix/ShareRoots.h"
#include "platform/Nt.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace fodr::ntposix {

class ChangeSubscription;
class DirectoryScan;

class HandleServices {
public:
    HandleServices();
    ~HandleServices();
    HandleServices(const HandleServices &) = delete;
    HandleServices &operator=(const HandleServices &) = delete;

    // Ends the waiting calls of the handle and its change notification. Once is enough.
    void Close();

    BlockedCalls blockedCalls;

    Mutex scanLock;                                           // held for one listing call
    std::unique_ptr<DirectoryScan> scan GUARDED_BY(scanLock); // from the first listing on

    Mutex changesLock; // held while the first notification call is set up
    std::unique_ptr<ChangeSubscription> changes GUARDED_BY(changesLock); // from the first notification on
};

// One successful create: what a handle stands for.
//
// Any thread. The handle table keeps it alive while a call uses it (OpenFileRef), also when its handle is
// closed meanwhile. Closing the handle is the cleanup: share modes, locks and watches end there; the
// descriptor is closed with the last reference.
class NamedStream;

class OpenFile {
public:
    OpenFile() = default;
    ~OpenFile();
    OpenFile(const OpenFile &) = delete;
    OpenFile &operator=(const OpenFile &) = delete;

    bool IsDirectory() const { return kind == FileKind::kDirectory; }
    bool HasAccess(uint32_t rights) const { return (access & rights) != 0; } // any of them
    // What has name, times and attributes: of a named stream the file that it belongs to.
    const OpenFile &File() const { return base ? *base : *this; }
    // Of the share that the file was opened through: the device of its root, and whether its names differ by
    // case. No device where it was opened through none.
    std::optional<dev_t> RootDevice() const
    {
        return root ? std::optional<dev_t>(root->Key().device) : std::nullopt;
    }
    bool IsCaseSensitive() const { return root && root->Rules().names == nt::CaseRule::Exact; }
    // Facts of the file with the size of what is open. 0 or an errno.
    [[nodiscard]] int Stat(FileMetadata *facts) const;

    // Fixed once the create has succeeded.
    std::unique_ptr<OpenFile> base;      // of a named stream
    std::shared_ptr<NamedStream> stream; // fd are its bytes then, and object is theirs
    Fd fd;                        // O_PATH when no data right was granted: fstat and /proc/self/fd still work
    FileObject *object = nullptr; // referenced until destruction
    uint32_t access = 0;          // granted; generic rights and MAXIMUM_ALLOWED are resolved
    uint32_t share = 0;
    uint32_t options = 0; // CreateOptions
    FileKind kind = FileKind::kFile;
    bool dataFd = false; // fd isn't O_PATH
    bool exactName =
        false; // opened in its very case, by the caller's wish or the share's rule; renamed likewise
    // The root of the share that the name belonged to, with its rules and, by Key().device, its file system.
    // Null for names that belong to no share.
    std::shared_ptr<const HeldRoot> root;

    std::atomic<uint32_t> mode{0};    // FileModeInformation
    std::atomic<bool> dotName{false}; // the name hides the file
    std::atomic<int64_t> position{0};
    HandleServices services; // listing, notification and waiting calls

    // POSIX path that was opened, links followed or not. A hint: whoever acts on the name checks that it is
    // still this file. By object->lock.
    std::string path;
    bool nameTaken = false;     // by object->lock; it can't be deleted or renamed any more
    bool deletePending = false; // by object->lock
    bool deleteOnClose = false; // by object->lock
};

} // namespace fodr::ntposix
