// The file calls are ntdll's own; here only the types of the arguments change names.
#include "platform/Nt.h"

#include "platform/windows/Win32.h"
#include "platform/windows/WineScans.h"

#include <shlwapi.h>
#include <winternl.h>

#undef PathFileExists

// What winternl.h leaves out. The keys of locks are 32 bits wide; Wine looks at the whole place of the
// argument, which a wider type leaves no old bits in.
extern "C" {
NTSTATUS NTAPI NtReadFile(HANDLE, HANDLE, PIO_APC_ROUTINE, PVOID, PIO_STATUS_BLOCK, PVOID, ULONG,
                          PLARGE_INTEGER, PULONG);
NTSTATUS NTAPI NtWriteFile(HANDLE, HANDLE, PIO_APC_ROUTINE, PVOID, PIO_STATUS_BLOCK, PVOID, ULONG,
                           PLARGE_INTEGER, PULONG);
NTSTATUS NTAPI NtQueryDirectoryFile(HANDLE, HANDLE, PIO_APC_ROUTINE, PVOID, PIO_STATUS_BLOCK, PVOID, ULONG,
                                    FILE_INFORMATION_CLASS, BOOLEAN, PUNICODE_STRING, BOOLEAN);
NTSTATUS NTAPI NtNotifyChangeDirectoryFile(HANDLE, HANDLE, PIO_APC_ROUTINE, PVOID, PIO_STATUS_BLOCK, PVOID,
                                           ULONG, ULONG, BOOLEAN);
NTSTATUS NTAPI NtLockFile(HANDLE, HANDLE, PIO_APC_ROUTINE, PVOID, PIO_STATUS_BLOCK, PLARGE_INTEGER,
                          PLARGE_INTEGER, ULONG_PTR, BOOLEAN, BOOLEAN);
NTSTATUS NTAPI NtUnlockFile(HANDLE, PIO_STATUS_BLOCK, PLARGE_INTEGER, PLARGE_INTEGER, ULONG_PTR);
}

namespace fodr::nt {

namespace {

// Records that are ours and the system's by layout.
static_assert(sizeof(IO_STATUS_BLOCK) == sizeof(::IO_STATUS_BLOCK));
static_assert(sizeof(UNICODE_STRING) == sizeof(::UNICODE_STRING));
static_assert(sizeof(OBJECT_ATTRIBUTES) == sizeof(::OBJECT_ATTRIBUTES));
static_assert(sizeof(LARGE_INTEGER) == sizeof(::LARGE_INTEGER));

::IO_STATUS_BLOCK *Native(IO_STATUS_BLOCK *block)
{
    return reinterpret_cast<::IO_STATUS_BLOCK *>(block);
}

::LARGE_INTEGER *Native(LARGE_INTEGER *number)
{
    return reinterpret_cast<::LARGE_INTEGER *>(number);
}

::UNICODE_STRING *Native(UNICODE_STRING *text)
{
    return reinterpret_cast<::UNICODE_STRING *>(text);
}

PIO_APC_ROUTINE Native(void *apcRoutine)
{
    return reinterpret_cast<PIO_APC_ROUTINE>(apcRoutine);
}

ULONG *Native(uint32_t *number)
{
    return reinterpret_cast<ULONG *>(number);
}

// The Win32 spelling of an NT path: the two differ in the second character.
std::wstring Win32Path(const char16_t *ntPath)
{
    std::wstring path(platform::AsWide(ntPath));
    if (path.starts_with(L"\\??\\"))
        path[1] = L'\\';
    return path;
}

} // namespace

NTSTATUS NtCreateFile(HANDLE *fileHandle, uint32_t desiredAccess, OBJECT_ATTRIBUTES *objectAttributes,
                      IO_STATUS_BLOCK *ioStatus, LARGE_INTEGER *allocationSize, uint32_t fileAttributes,
                      uint32_t shareAccess, uint32_t createDisposition, uint32_t createOptions,
                      void *eaBuffer, uint32_t eaLength)
{
    return ::NtCreateFile(fileHandle, desiredAccess,
                          reinterpret_cast<::OBJECT_ATTRIBUTES *>(objectAttributes), Native(ioStatus),
                          Native(allocationSize), fileAttributes, shareAccess, createDisposition,
                          createOptions, eaBuffer, eaLength);
}

NTSTATUS NtReadFile(HANDLE file, HANDLE event, void *apcRoutine, void *apcContext, IO_STATUS_BLOCK *ioStatus,
                    void *buffer, uint32_t length, LARGE_INTEGER *byteOffset, uint32_t *key)
{
    return ::NtReadFile(file, event, Native(apcRoutine), apcContext, Native(ioStatus), buffer, length,
                        Native(byteOffset), Native(key));
}

NTSTATUS NtWriteFile(HANDLE file, HANDLE event, void *apcRoutine, void *apcContext, IO_STATUS_BLOCK *ioStatus,
                     const void *buffer, uint32_t length, LARGE_INTEGER *byteOffset, uint32_t *key)
{
    return ::NtWriteFile(file, event, Native(apcRoutine), apcContext, Native(ioStatus),
                         const_cast<void *>(buffer), length, Native(byteOffset), Native(key));
}

NTSTATUS NtClose(HANDLE handle)
{
    platform::ForgetScan(handle);
    return ::NtClose(handle);
}

NTSTATUS NtQueryDirectoryFile(HANDLE file, HANDLE event, void *apcRoutine, void *apcContext,
                              IO_STATUS_BLOCK *ioStatus, void *buffer, uint32_t length, uint32_t infoClass,
                              bool returnSingleEntry, UNICODE_STRING *fileName, bool restartScan)
{
    if (platform::IsUnknownListing(infoClass))
        return STATUS_INVALID_INFO_CLASS;
    const HANDLE scan = platform::HandleForScan(file, restartScan && fileName && fileName->Length != 0);
    const auto query = [&](HANDLE signalled) {
        return ::NtQueryDirectoryFile(scan, signalled, Native(apcRoutine), apcContext, Native(ioStatus),
                                      buffer, length, static_cast<FILE_INFORMATION_CLASS>(infoClass),
                                      returnSingleEntry, Native(fileName), restartScan);
    };
    const NTSTATUS status = query(event);
    // Wine doesn't know the event here; a handle for synchronous I/O does without.
    return status == STATUS_NOT_IMPLEMENTED && event && platform::IsWine() ? query(nullptr) : status;
}

NTSTATUS NtQueryInformationFile(HANDLE file, IO_STATUS_BLOCK *ioStatus, void *buffer, uint32_t length,
                                uint32_t infoClass)
{
    return ::NtQueryInformationFile(file, Native(ioStatus), buffer, length,
                                    static_cast<FILE_INFORMATION_CLASS>(infoClass));
}

NTSTATUS NtSetInformationFile(HANDLE file, IO_STATUS_BLOCK *ioStatus, const void *buffer, uint32_t length,
                              uint32_t infoClass)
{
    return ::NtSetInformationFile(file, Native(ioStatus), const_cast<void *>(buffer), length,
                                  static_cast<FILE_INFORMATION_CLASS>(infoClass));
}

NTSTATUS NtQueryVolumeInformationFile(HANDLE file, IO_STATUS_BLOCK *ioStatus, void *buffer, uint32_t length,
                                      uint32_t infoClass)
{
    return ::NtQueryVolumeInformationFile(file, Native(ioStatus), buffer, length,
                                          static_cast<FS_INFORMATION_CLASS>(infoClass));
}

NTSTATUS NtSetVolumeInformationFile(HANDLE file, IO_STATUS_BLOCK *ioStatus, const void *buffer,
                                    uint32_t length, uint32_t infoClass)
{
    return ::NtSetVolumeInformationFile(file, Native(ioStatus), const_cast<void *>(buffer), length,
                                        static_cast<FILE_INFORMATION_CLASS>(infoClass));
}

NTSTATUS NtNotifyChangeDirectoryFile(HANDLE file, HANDLE event, void *apcRoutine, void *apcContext,
                                     IO_STATUS_BLOCK *ioStatus, void *buffer, uint32_t length,
                                     uint32_t completionFilter, bool watchTree)
{
    ioStatus->Status = STATUS_CANCELLED; // where Wine leaves the block of a cancelled call as it was
    return ::NtNotifyChangeDirectoryFile(file, event, Native(apcRoutine), apcContext, Native(ioStatus),
                                         buffer, length, completionFilter, watchTree);
}

NTSTATUS NtLockFile(HANDLE file, HANDLE event, void *apcRoutine, void *apcContext, IO_STATUS_BLOCK *ioStatus,
                    LARGE_INTEGER *byteOffset, LARGE_INTEGER *length, uint32_t key, bool failImmediately,
                    bool exclusive)
{
    const auto lock = [&](::IO_STATUS_BLOCK *block) {
        return ::NtLockFile(file, event, Native(apcRoutine), apcContext, block, Native(byteOffset),
                            Native(length), key, failImmediately, exclusive);
    };
    const NTSTATUS status = lock(Native(ioStatus));
    if (status != STATUS_NOT_IMPLEMENTED || !platform::IsWine())
        return status;
    return ioStatus->Status = lock(nullptr); // Wine knows no block here
}

NTSTATUS NtUnlockFile(HANDLE file, IO_STATUS_BLOCK *ioStatus, LARGE_INTEGER *byteOffset,
                      LARGE_INTEGER *length, uint32_t key)
{
    const NTSTATUS status = ::NtUnlockFile(file, Native(ioStatus), Native(byteOffset), Native(length), key);
    if (status != STATUS_NOT_IMPLEMENTED || !platform::IsWine())
        return status;
    return ioStatus->Status = ::NtUnlockFile(file, nullptr, Native(byteOffset), Native(length), key);
}

NTSTATUS NtDeviceIoControlFile(HANDLE file, HANDLE event, void *apcRoutine, void *apcContext,
                               IO_STATUS_BLOCK *ioStatus, uint32_t ioControlCode, const void *input,
                               uint32_t inputLength, void *output, uint32_t outputLength)
{
    // A file system's own codes come here, too; that it wants them by NtFsControlFile is known and meant.
    return ::NtDeviceIoControlFile(file, event, Native(apcRoutine), apcContext, Native(ioStatus),
                                   ioControlCode, const_cast<void *>(input), inputLength, output,
                                   outputLength);
}

NTSTATUS NtWaitForSingleObject(HANDLE handle, bool alertable, LARGE_INTEGER *timeout)
{
    return ::NtWaitForSingleObject(handle, alertable, Native(timeout));
}

void RtlInitUnicodeString(UNICODE_STRING *destination, const char16_t *text)
{
    ::RtlInitUnicodeString(Native(destination), platform::AsWide(text));
}

NtCallEvent::~NtCallEvent()
{
    if (handle)
        CloseHandle(handle);
}

uint32_t NtCallEvent::Create()
{
    handle = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    return handle ? 0 : GetLastError();
}

struct NoticeOrder::State {};

NoticeOrder::NoticeOrder() : state(std::make_unique<State>()) {}

NoticeOrder::~NoticeOrder() = default;

void NoticeOrder::Settle() {}

NoticeOrder::Delivery::Delivery(NoticeOrder &ofOrder) : order(*ofOrder.state) {}

NoticeOrder::Delivery::~Delivery() = default;

ShareRoot::ShareRoot(const std::u16string &, const ShareRules &) {}

ShareRoot::~ShareRoot() = default;

uint32_t CancelIoEx(HANDLE file)
{
    return ::CancelIoEx(file, nullptr) ? 0 : GetLastError();
}

bool GetFileAttributes(const char16_t *ntPath, uint32_t *attributes)
{
    *attributes = ::GetFileAttributesW(Win32Path(ntPath).c_str());
    return *attributes != INVALID_FILE_ATTRIBUTES;
}

bool PathFileExists(const char16_t *ntPath)
{
    return PathFileExistsW(Win32Path(ntPath).c_str());
}

} // namespace fodr::nt
