// The NT native file calls with their own names, arguments, statuses and record layouts.
//
// On Windows each is the call of the same name in ntdll; on Linux src/ntposix serves them over POSIX files.
// All calls may be made from any thread at once. Pointers are borrowed for the call. Record layouts are in
// NtRecords.h (MS-FSCC 2.4 and 2.5), statuses in NtStatus.h (MS-ERREF 2.3.1). 64-bit processes only.
#pragma once

#include "platform/NtStatus.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace fodr::nt {

using HANDLE = void *;

struct IO_STATUS_BLOCK {
    union {
        NTSTATUS Status;
        void *Pointer;
    };
    uint64_t Information;
};
static_assert(sizeof(IO_STATUS_BLOCK) == 16);

struct LARGE_INTEGER {
    int64_t QuadPart;
};

// A counted UTF-16 text; lengths are in bytes and need no terminator.
struct UNICODE_STRING {
    uint16_t Length;
    uint16_t MaximumLength;
    char16_t *Buffer;
};
static_assert(sizeof(UNICODE_STRING) == 16);

struct OBJECT_ATTRIBUTES {
    uint32_t Length; // sizeof(OBJECT_ATTRIBUTES)
    HANDLE RootDirectory;
    UNICODE_STRING *ObjectName;
    uint32_t Attributes;
    void *SecurityDescriptor;
    void *SecurityQualityOfService;
};
static_assert(sizeof(OBJECT_ATTRIBUTES) == 48);

inline constexpr uint32_t OBJ_CASE_INSENSITIVE = 0x40;

// Access rights (MS-SMB2 2.2.13.1 lists the same values).
inline constexpr uint32_t FILE_READ_DATA = 0x1; // FILE_LIST_DIRECTORY on a directory
inline constexpr uint32_t FILE_LIST_DIRECTORY = 0x1;
inline constexpr uint32_t FILE_WRITE_DATA = 0x2;  // FILE_ADD_FILE
inline constexpr uint32_t FILE_APPEND_DATA = 0x4; // FILE_ADD_SUBDIRECTORY
inline constexpr uint32_t FILE_READ_EA = 0x8;
inline constexpr uint32_t FILE_WRITE_EA = 0x10;
inline constexpr uint32_t FILE_EXECUTE = 0x20; // FILE_TRAVERSE
inline constexpr uint32_t FILE_DELETE_CHILD = 0x40;
inline constexpr uint32_t FILE_READ_ATTRIBUTES = 0x80;
inline constexpr uint32_t FILE_WRITE_ATTRIBUTES = 0x100;
inline constexpr uint32_t DELETE_ACCESS = 0x10000; // DELETE, which windows.h makes a macro
inline constexpr uint32_t READ_CONTROL = 0x20000;
inline constexpr uint32_t WRITE_DAC = 0x40000;
inline constexpr uint32_t WRITE_OWNER = 0x80000;
inline constexpr uint32_t SYNCHRONIZE = 0x100000;
inline constexpr uint32_t MAXIMUM_ALLOWED = 0x02000000;
inline constexpr uint32_t GENERIC_ALL = 0x10000000;
inline constexpr uint32_t GENERIC_EXECUTE = 0x20000000;
inline constexpr uint32_t GENERIC_WRITE = 0x40000000;
inline constexpr uint32_t GENERIC_READ = 0x80000000;

inline constexpr uint32_t FILE_SHARE_READ = 0x1;
inline constexpr uint32_t FILE_SHARE_WRITE = 0x2;
inline constexpr uint32_t FILE_SHARE_DELETE = 0x4;

inline constexpr uint32_t FILE_ATTRIBUTE_READONLY = 0x1;
inline constexpr uint32_t FILE_ATTRIBUTE_HIDDEN = 0x2;
inline constexpr uint32_t FILE_ATTRIBUTE_SYSTEM = 0x4;
inline constexpr uint32_t FILE_ATTRIBUTE_DIRECTORY = 0x10;
inline constexpr uint32_t FILE_ATTRIBUTE_ARCHIVE = 0x20;
inline constexpr uint32_t FILE_ATTRIBUTE_NORMAL = 0x80;
inline constexpr uint32_t FILE_ATTRIBUTE_TEMPORARY = 0x100;
inline constexpr uint32_t FILE_ATTRIBUTE_SPARSE_FILE = 0x200;
inline constexpr uint32_t FILE_ATTRIBUTE_REPARSE_POINT = 0x400;

inline constexpr uint32_t FILE_SUPERSEDE = 0; // CreateDisposition
inline constexpr uint32_t FILE_OPEN = 1;
inline constexpr uint32_t FILE_CREATE = 2;
inline constexpr uint32_t FILE_OPEN_IF = 3;
inline constexpr uint32_t FILE_OVERWRITE = 4;
inline constexpr uint32_t FILE_OVERWRITE_IF = 5;

inline constexpr uint32_t FILE_SUPERSEDED = 0; // Information of a create
inline constexpr uint32_t FILE_OPENED = 1;
inline constexpr uint32_t FILE_CREATED = 2;
inline constexpr uint32_t FILE_OVERWRITTEN = 3;
inline constexpr uint32_t FILE_EXISTS = 4;
inline constexpr uint32_t FILE_DOES_NOT_EXIST = 5;

inline constexpr uint32_t FILE_DIRECTORY_FILE = 0x1; // CreateOptions
inline constexpr uint32_t FILE_WRITE_THROUGH = 0x2;
inline constexpr uint32_t FILE_SEQUENTIAL_ONLY = 0x4;
inline constexpr uint32_t FILE_NO_INTERMEDIATE_BUFFERING = 0x8;
inline constexpr uint32_t FILE_SYNCHRONOUS_IO_ALERT = 0x10;
inline constexpr uint32_t FILE_SYNCHRONOUS_IO_NONALERT = 0x20;
inline constexpr uint32_t FILE_NON_DIRECTORY_FILE = 0x40;
inline constexpr uint32_t FILE_RANDOM_ACCESS = 0x800;
inline constexpr uint32_t FILE_DELETE_ON_CLOSE = 0x1000;
inline constexpr uint32_t FILE_OPEN_BY_FILE_ID = 0x2000;
inline constexpr uint32_t FILE_OPEN_FOR_BACKUP_INTENT = 0x4000;
inline constexpr uint32_t FILE_OPEN_REPARSE_POINT = 0x200000;

inline constexpr uint32_t FILE_NOTIFY_CHANGE_FILE_NAME = 0x1;
inline constexpr uint32_t FILE_NOTIFY_CHANGE_DIR_NAME = 0x2;
inline constexpr uint32_t FILE_NOTIFY_CHANGE_ATTRIBUTES = 0x4;
inline constexpr uint32_t FILE_NOTIFY_CHANGE_SIZE = 0x8;
inline constexpr uint32_t FILE_NOTIFY_CHANGE_LAST_WRITE = 0x10;
inline constexpr uint32_t FILE_NOTIFY_CHANGE_LAST_ACCESS = 0x20;
inline constexpr uint32_t FILE_NOTIFY_CHANGE_CREATION = 0x40;
inline constexpr uint32_t FILE_NOTIFY_CHANGE_EA = 0x80;
inline constexpr uint32_t FILE_NOTIFY_CHANGE_SECURITY = 0x100;

NTSTATUS NtCreateFile(HANDLE *fileHandle, uint32_t desiredAccess, OBJECT_ATTRIBUTES *objectAttributes,
                      IO_STATUS_BLOCK *ioStatus, LARGE_INTEGER *allocationSize, uint32_t fileAttributes,
                      uint32_t shareAccess, uint32_t createDisposition, uint32_t createOptions,
                      void *eaBuffer, uint32_t eaLength);
NTSTATUS NtReadFile(HANDLE file, HANDLE event, void *apcRoutine, void *apcContext, IO_STATUS_BLOCK *ioStatus,
                    void *buffer, uint32_t length, LARGE_INTEGER *byteOffset, uint32_t *key);
NTSTATUS NtWriteFile(HANDLE file, HANDLE event, void *apcRoutine, void *apcContext, IO_STATUS_BLOCK *ioStatus,
                     const void *buffer, uint32_t length, LARGE_INTEGER *byteOffset, uint32_t *key);
NTSTATUS NtClose(HANDLE handle);
NTSTATUS NtQueryDirectoryFile(HANDLE file, HANDLE event, void *apcRoutine, void *apcContext,
                              IO_STATUS_BLOCK *ioStatus, void *buffer, uint32_t length, uint32_t infoClass,
                              bool returnSingleEntry, UNICODE_STRING *fileName, bool restartScan);
NTSTATUS NtQueryInformationFile(HANDLE file, IO_STATUS_BLOCK *ioStatus, void *buffer, uint32_t length,
                                uint32_t infoClass);
NTSTATUS NtSetInformationFile(HANDLE file, IO_STATUS_BLOCK *ioStatus, const void *buffer, uint32_t length,
                              uint32_t infoClass);
NTSTATUS NtQueryVolumeInformationFile(HANDLE file, IO_STATUS_BLOCK *ioStatus, void *buffer, uint32_t length,
                                      uint32_t infoClass);
NTSTATUS NtSetVolumeInformationFile(HANDLE file, IO_STATUS_BLOCK *ioStatus, const void *buffer,
                                    uint32_t length, uint32_t infoClass);
// Blocks on Linux until a change, a cancel or the close of the handle.
NTSTATUS NtNotifyChangeDirectoryFile(HANDLE file, HANDLE event, void *apcRoutine, void *apcContext,
                                     IO_STATUS_BLOCK *ioStatus, void *buffer, uint32_t length,
                                     uint32_t completionFilter, bool watchTree);
NTSTATUS NtLockFile(HANDLE file, HANDLE event, void *apcRoutine, void *apcContext, IO_STATUS_BLOCK *ioStatus,
                    LARGE_INTEGER *byteOffset, LARGE_INTEGER *length, uint32_t key, bool failImmediately,
                    bool exclusive);
NTSTATUS NtUnlockFile(HANDLE file, IO_STATUS_BLOCK *ioStatus, LARGE_INTEGER *byteOffset,
                      LARGE_INTEGER *length, uint32_t key);
NTSTATUS NtDeviceIoControlFile(HANDLE file, HANDLE event, void *apcRoutine, void *apcContext,
                               IO_STATUS_BLOCK *ioStatus, uint32_t ioControlCode, const void *input,
                               uint32_t inputLength, void *output, uint32_t outputLength);
NTSTATUS NtWaitForSingleObject(HANDLE handle, bool alertable, LARGE_INTEGER *timeout);

// `text` is borrowed and must be zero-terminated, at most 32766 units.
void RtlInitUnicodeString(UNICODE_STRING *destination, const char16_t *text);

// The event that one asynchronous call waits on when it returns STATUS_PENDING. On Linux every call has
// finished when it returns, so there is nothing to make and Create costs nothing.
class NtCallEvent {
public:
    NtCallEvent() = default;
    ~NtCallEvent();
    NtCallEvent(const NtCallEvent &) = delete;
    NtCallEvent &operator=(const NtCallEvent &) = delete;

    // Returns 0, or the Windows error code of the failed creation.
    [[nodiscard]] uint32_t Create();
    HANDLE Handle() const { return handle; }

private:
    HANDLE handle = nullptr;
};

// Cancels the I/O of every thread on the handle. Returns 0 or a Windows error code; ERROR_NOT_FOUND (1168)
// says that nothing was in flight.
[[nodiscard]] uint32_t CancelIoEx(HANDLE file);

// The order between the notices of changes and the other answers that one receiver gets.
//
// On Linux no other answer overtakes the notice of a change that it may already show: a change that was
// complete when Settle was called has ended a waiting notification, if there was one, and the answer of that
// has been sent when Settle returns. What changed while no notification waited ends the next one. On Windows
// the system sends its notices on its own time, and nothing of this costs anything.
class NoticeOrder {
public:
    NoticeOrder();
    ~NoticeOrder(); // after all deliveries
    NoticeOrder(const NoticeOrder &) = delete;
    NoticeOrder &operator=(const NoticeOrder &) = delete;

    // Stands around one NtNotifyChangeDirectoryFile and the sending of its answer, on one thread. One a
    // thread.
    class Delivery;
    struct State; // of the implementation
    // To be called just before another answer is sent, without a lock that the sending of a notice needs.
    // Costs a load while no notification waits, else a system call; waits only for notices that are being
    // sent. Does nothing on the thread of a Delivery.
    void Settle();

private:
    friend struct State;
    std::unique_ptr<State> state;
};

class NoticeOrder::Delivery {
public:
    explicit Delivery(NoticeOrder &ofOrder);
    ~Delivery();
    Delivery(const Delivery &) = delete;
    Delivery &operator=(const Delivery &) = delete;

private:
    friend struct State;
    State &order;
    uint64_t number = 0; // not 0: a change has ended the call
    bool waits = false;  // the call waits, or has waited, for a change
};

// How the names of a share lead to its files, where the system leaves that to us.
enum class CaseRule : uint8_t {
    AnyCase,        // a create that meets a name in another case opens what is there, as NT has it
    AnyCaseNoMerge, // such a create is STATUS_OBJECT_NAME_COLLISION; what doesn't create finds it as before
    Exact,          // names that differ in case are two, whatever a caller asks for
};
struct ShareRules {
    // The root's own name is one in its very case: once the folder is gone, no neighbour whose name differs
    // in case is taken for it.
    bool exactRoot = false;
    CaseRule names = CaseRule::AnyCase;
    bool linksOutside = false; // links of the share may lead anywhere, else only to what lies in the share
    bool readOnly = false;     // nothing of it can be changed through it; kept by the caller, above this seam
};

// The root of a share, while this lives: every name that begins with its very text, followed by a separator
// or by nothing, belongs to the share and goes by its rules; of several such roots the longest counts, and of
// two with one text the stricter rule. Other names of the same folder go by none. Where the system has rules
// of its own (Windows) nothing is kept.
//
// What belongs to the share is looked for from the root's folder on, which is held once it has been found: on
// the file system of "/" as long as the share lives, elsewhere while something of the share is open, so that
// a medium can be taken away. Whoever looks at the root itself sees the folder that has the name now, and so
// do all opens from then on; the others go on in the folder that is held, wherever it was moved to. A root
// that was removed shows nothing until a folder has its name again.
class ShareRoot {
public:
    // Without a separator at its end, but for a drive and the root of all.
    ShareRoot(const std::u16string &ntPath, const ShareRules &shareRules);
    ~ShareRoot();
    ShareRoot(const ShareRoot &) = delete;
    ShareRoot &operator=(const ShareRoot &) = delete;

private:
    std::u16string path;
    ShareRules rules;
};

// Attributes of the file that a zero-terminated NT path ("\??\...") names, as GetFileAttributesW gives them.
// False when there is none or it can't be reached. A trailing separator is allowed.
[[nodiscard]] bool GetFileAttributes(const char16_t *ntPath, uint32_t *attributes);
[[nodiscard]] bool PathFileExists(const char16_t *ntPath);

} // namespace fodr::nt
