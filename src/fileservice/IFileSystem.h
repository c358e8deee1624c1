// The file calls of one share: the one seam between the request logic and the operating system.
//
// Every operation returns an NT status and may be called from any thread at once. A file is named by its
// 32-bit `fileId`, the low half of the native handle. `*ioStatus` is set by every operation that takes one;
// its Information is 0 when nothing was moved. Where an `outBuffer` is handed out it is a malloc block, the
// caller's to free, of at least Information bytes; else `*outBuffer` is null.
#pragma once

#include "platform/Nt.h"

#include <cstdint>

namespace fodr {

class IFileSystem {
public:
    // Opens or creates the file that the zero-terminated NT path names. `*fileId` is 0 on failure; the low
    // byte of `*information` goes on the wire. `readOnly` keeps missing files from being made by FILE_CREATE
    // and FILE_OPEN_IF, and nothing more.
    virtual nt::NTSTATUS RedirectedCreateFile(uint32_t *fileId, uint32_t desiredAccess, const char16_t *path,
                                              uint64_t allocationSize, uint32_t fileAttributes,
                                              uint32_t shareAccess, uint32_t createDisposition,
                                              uint32_t createOptions, uint32_t *information,
                                              bool readOnly) = 0;
    // Facts of the volume, or of the file, in wire form. Without a buffer nothing goes out.
    virtual nt::NTSTATUS RedirectedQueryVolumeInformationFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                                              uint8_t **outBuffer, uint32_t fsInfoClass) = 0;
    virtual nt::NTSTATUS RedirectedSetVolumeInformationFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                                            const void *buffer, uint32_t length,
                                                            uint32_t fsInfoClass) = 0;
    virtual nt::NTSTATUS RedirectedQueryInformationFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                                        uint8_t **outBuffer, uint32_t fileInfoClass) = 0;
    // `buffer` is in wire form. At least kSetBufferReadable bytes of it must be readable, whatever `length`
    // says.
    virtual nt::NTSTATUS RedirectedSetInformationFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                                      uint8_t *buffer, uint32_t length,
                                                      uint32_t fileInfoClass) = 0;
    // The next entry in wire form; with `multiEntry` and class 2 or 3 as many entries as fit, in native form.
    // A null or empty `pattern` matches everything.
    virtual nt::NTSTATUS RedirectedQueryDirectoryFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                                      uint8_t **outBuffer, uint32_t fileInfoClass,
                                                      bool restartScan, const char16_t *pattern,
                                                      bool multiEntry) = 0;
    virtual nt::NTSTATUS RedirectedCloseFile(uint32_t fileId) = 0;
    // Wakes every blocked call on the handle with a cancelled status. Success also when there is none.
    virtual nt::NTSTATUS RedirectedCancelAllIo(uint32_t fileId) = 0;
    // At most kLongestRead bytes. The buffer is of `length` or so many bytes, zero behind
    // what was read, and handed out also when the read fails.
    virtual nt::NTSTATUS RedirectedReadFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                            uint8_t **outBuffer, uint32_t length,
                                            const nt::LARGE_INTEGER &offset) = 0;
    virtual nt::NTSTATUS RedirectedWriteFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                             const void *buffer, uint32_t length,
                                             const nt::LARGE_INTEGER &offset) = 0;
    virtual nt::NTSTATUS RedirectedDeviceIoControlFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                                       uint32_t controlCode, const void *input,
                                                       uint32_t inputLength, void *output,
                                                       uint32_t outputLength) = 0;
    // Blocks until something that the filter names changes in the directory (with `watchTree`, below it too),
    // or until the handle's I/O is cancelled.
    virtual nt::NTSTATUS RedirectedNotifyChangeDirectoryFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                                             uint32_t completionFilter, bool watchTree) = 0;
    // Blocks until the range is free unless `failImmediately`.
    virtual nt::NTSTATUS RedirectedLockFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                            const nt::LARGE_INTEGER &offset, const nt::LARGE_INTEGER &length,
                                            bool failImmediately, bool exclusive) = 0;
    virtual nt::NTSTATUS RedirectedUnlockFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                              const nt::LARGE_INTEGER &offset,
                                              const nt::LARGE_INTEGER &length) = 0;
    virtual ~IFileSystem() = default;

    // The native size of the basic information record, which is read whole.
    static constexpr uint32_t kSetBufferReadable = 40;
};

// What one request may cost, whatever its packet says. docs/security.md lists them with all others:

// Bytes of one read. A longer one gets so many: a short count is true, and the agent asks for the rest.
inline constexpr uint32_t kLongestRead = 4u << 20;
// Bytes that a control may put out, likewise.
inline constexpr uint32_t kLongestControlOutput = 1u << 20;
// Bytes of entries in the answer to one listing request.
inline constexpr uint32_t kListingAnswer = 64u << 10;

} // namespace fodr
