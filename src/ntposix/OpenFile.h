// One successful create: what a handle stands for.
//
// Any thread. The handle table keeps it alive while a call uses it (OpenFileRef), also when its handle is
// closed meanwhile. Closing the handle is the cleanup: share modes, locks and watches end there; the
// descriptor is closed with the last reference.
#pragma once

#include "ntposix/Fd.h"
#include "ntposix/FileObject.h"
#include "platform/Nt.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace fodr::ntposix {

enum class FileKind : uint8_t {
    kFile,
    kDirectory,
    kLink,    // a symbolic link itself, opened with FILE_OPEN_REPARSE_POINT
    kSpecial, // FIFO, socket or device node: attributes only
};

// What a service keeps for one open: a listing's place, a watch. Made on first use, destroyed with the open.
class OpenFileExtension {
public:
    virtual ~OpenFileExtension() = default;
    // The handle is being closed. Calls that block for this state must end soon; new ones may still be
    // entering.
    virtual void Cleanup() {}
    // Ends every blocked call of this state with STATUS_CANCELLED. False when none was blocked.
    virtual bool Cancel() { return false; }
};

enum class ExtensionSlot : uint8_t { kListing, kNotify, kLocks, kCount };

class OpenFile {
public:
    OpenFile() = default;
    ~OpenFile();
    OpenFile(const OpenFile &) = delete;
    OpenFile &operator=(const OpenFile &) = delete;

    bool IsDirectory() const { return kind == FileKind::kDirectory; }
    bool HasAccess(uint32_t rights) const { return (access & rights) != 0; } // any of them

    // The state in a slot, null when there is none yet.
    template <typename T> T *Extension(ExtensionSlot slot) const
    {
        return static_cast<T *>(extensions[static_cast<size_t>(slot)].load(std::memory_order_acquire));
    }
    // The same, made by `new T(*this)` when there is none.
    template <typename T> T &MakeExtension(ExtensionSlot slot)
    {
        if (T *present = Extension<T>(slot))
            return *present;
        return static_cast<T &>(Publish(slot, std::make_unique<T>(*this)));
    }
    // Calls Cleanup of every state; from the closing thread, once.
    void CleanupExtensions();
    // True when a blocked call was cancelled.
    bool CancelExtensions();

    // Fixed once the create has succeeded.
    Fd fd;                        // O_PATH when no data right was granted: fstat and /proc/self/fd still work
    FileObject *object = nullptr; // referenced until destruction
    uint32_t access = 0;          // granted; generic rights and MAXIMUM_ALLOWED are resolved
    uint32_t share = 0;
    uint32_t options = 0; // CreateOptions
    FileKind kind = FileKind::kFile;
    bool dataFd = false; // fd isn't O_PATH

    std::atomic<uint32_t> mode{0}; // FileModeInformation
    std::atomic<int64_t> position{0};
    std::atomic<bool> closed{false}; // set before Cleanup: a call that is about to block looks at it

    // POSIX path that was opened, links followed or not. A hint: whoever acts on the name checks that it is
    // still this file. By object->lock.
    std::string path;
    bool deletePending = false; // by object->lock
    bool deleteOnClose = false; // by object->lock

private:
    OpenFileExtension &Publish(ExtensionSlot slot, std::unique_ptr<OpenFileExtension> made);

    std::array<std::atomic<OpenFileExtension *>, static_cast<size_t>(ExtensionSlot::kCount)> extensions{};
};

} // namespace fodr::ntposix
