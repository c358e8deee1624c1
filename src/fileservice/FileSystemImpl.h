// The file calls of one share over the NT file calls, with the records turned into those of the wire where
// they differ. Any thread: it holds no state but the share's root.
#pragma once

#include "fileservice/IFileSystem.h"
#include "rdpdr/wire/RdpdrPacker.h"

#include <memory>
#include <optional>
#include <string>

namespace fodr {

class FileSystemImpl : public IFileSystem {
public:
    // `root` is the share's path in NT form; while the object lives it is a share's root with these rules.
    // Of a read-only one every change ends in STATUS_MEDIA_WRITE_PROTECTED. Null when there is no memory.
    [[nodiscard]] static std::unique_ptr<IFileSystem> Create(const std::string &root,
                                                             const nt::ShareRules &rules = {});

    nt::NTSTATUS RedirectedCreateFile(uint32_t *fileId, uint32_t desiredAccess, const char16_t *path,
                                      uint64_t allocationSize, uint32_t fileAttributes, uint32_t shareAccess,
                                      uint32_t createDisposition, uint32_t createOptions,
                                      uint32_t *information, bool readOnly) override;
    nt::NTSTATUS RedirectedQueryVolumeInformationFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                                      uint8_t **outBuffer, uint32_t fsInfoClass) override;
    nt::NTSTATUS RedirectedSetVolumeInformationFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                                    const void *buffer, uint32_t length,
                                                    uint32_t fsInfoClass) override;
    nt::NTSTATUS RedirectedQueryInformationFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                                uint8_t **outBuffer, uint32_t fileInfoClass) override;
    nt::NTSTATUS RedirectedSetInformationFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus, uint8_t *buffer,
                                              uint32_t length, uint32_t fileInfoClass) override;
    nt::NTSTATUS RedirectedQueryDirectoryFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                              uint8_t **outBuffer, uint32_t fileInfoClass, bool restartScan,
                                              const char16_t *pattern, bool multiEntry) override;
    nt::NTSTATUS RedirectedCloseFile(uint32_t fileId) override;
    nt::NTSTATUS RedirectedCancelAllIo(uint32_t fileId) override;
    nt::NTSTATUS RedirectedReadFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus, uint8_t **outBuffer,
                                    uint32_t length, const nt::LARGE_INTEGER &offset) override;
    nt::NTSTATUS RedirectedWriteFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus, const void *buffer,
                                     uint32_t length, const nt::LARGE_INTEGER &offset) override;
    nt::NTSTATUS RedirectedDeviceIoControlFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                               uint32_t controlCode, const void *input, uint32_t inputLength,
                                               void *output, uint32_t outputLength) override;
    nt::NTSTATUS RedirectedNotifyChangeDirectoryFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                                     uint32_t completionFilter, bool watchTree) override;
    nt::NTSTATUS RedirectedLockFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                    const nt::LARGE_INTEGER &offset, const nt::LARGE_INTEGER &length,
                                    bool failImmediately, bool exclusive) override;
    nt::NTSTATUS RedirectedUnlockFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                      const nt::LARGE_INTEGER &offset,
                                      const nt::LARGE_INTEGER &length) override;

protected:
    // Exact is for shares whose files are named one by one. A system that ignores case itself still does.
    enum class NameMatching { AnyCase, Exact };

    explicit FileSystemImpl(const std::string &root, NameMatching matching = NameMatching::AnyCase)
        : packer(root), nameMatching(matching)
    {}
    // To be called once. What is no text names no folder either.
    void KeepRoot(const std::string &root, const nt::ShareRules &rules);

private:
    RdpdrPacker packer;
    const NameMatching nameMatching;
    std::optional<nt::ShareRoot> shareRoot;
    bool readOnlyShare = false; // fixed by KeepRoot
};

} // namespace fodr
