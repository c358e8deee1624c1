// The file calls of a share with an allow-list. What the list doesn't name isn't there: the root directory
// has the listed files alone, no file can be renamed onto another name, and names are matched in their very
// case, so that a listed name that is gone isn't taken for a neighbour's. The root itself can be looked at
// but not changed. The mark of origin of a file that isn't listed ("name:Zone.Identifier") can be read where
// it is there; its handle tells and changes nothing of the file.
//
// Whether a path may be opened is decided before, by the device.
#pragma once

#include "fileservice/AllowAccessList.h"
#include "fileservice/FileSystemImpl.h"
#include "lib/misc/ByteBuffer.h"

#include <map>

namespace fodr {

class AllowListFileSystem : public FileSystemImpl {
public:
    // Null when there is no memory. The root is matched in its very case, too.
    [[nodiscard]] static std::unique_ptr<IFileSystem>
    Create(const std::string &root, std::shared_ptr<const AllowAccessList> list, nt::ShareRules rules = {});

    nt::NTSTATUS RedirectedCreateFile(uint32_t *fileId, uint32_t desiredAccess, const char16_t *path,
                                      uint64_t allocationSize, uint32_t fileAttributes, uint32_t shareAccess,
                                      uint32_t createDisposition, uint32_t createOptions,
                                      uint32_t *information, bool readOnly) override EXCLUDES(handlesLock);
    nt::NTSTATUS RedirectedQueryInformationFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                                uint8_t **outBuffer, uint32_t fileInfoClass) override;
    nt::NTSTATUS RedirectedSetInformationFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus, uint8_t *buffer,
                                              uint32_t length, uint32_t fileInfoClass) override;
    nt::NTSTATUS RedirectedQueryDirectoryFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                              uint8_t **outBuffer, uint32_t fileInfoClass, bool restartScan,
                                              const char16_t *pattern, bool multiEntry) override;
    nt::NTSTATUS RedirectedCloseFile(uint32_t fileId) override EXCLUDES(handlesLock);
    nt::NTSTATUS RedirectedDeviceIoControlFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                               uint32_t controlCode, const void *input, uint32_t inputLength,
                                               void *output, uint32_t outputLength) override;

protected:
    AllowListFileSystem(const std::string &root, std::shared_ptr<const AllowAccessList> list);

private:
    enum class Kind {
        Listed,     // or unknown
        RootUnread, // the root, whose directory hasn't been searched by this handle
        RootRead,
        ForeignMark, // of a file that isn't listed
    };
    Kind KindOf(uint32_t fileId) EXCLUDES(handlesLock);
    static bool IsRoot(Kind kind) { return kind == Kind::RootUnread || kind == Kind::RootRead; }
    bool IsForeignMark(const std::string &absolutePath) const;
    nt::NTSTATUS OpenForeignMark(uint32_t *fileId, uint32_t desiredAccess, const char16_t *path,
                                 uint32_t shareAccess, uint32_t createDisposition, uint32_t createOptions,
                                 uint32_t *information);
    bool CopiesListed(const void *input, uint32_t length);
    bool MayBeRenamedTo(const uint8_t *wireRecord, uint32_t length) const;
    // Closes the gaps that entries which aren't shown leave. The bytes that stay.
    size_t KeepShown(MallocBuffer &entries, uint32_t infoClass, bool chained) const;

    const std::string root;
    const std::shared_ptr<const AllowAccessList> allowed;
    OVMutex handlesLock;
    std::map<uint32_t, Kind> handles GUARDED_BY(handlesLock); // open ones of other kinds than Listed
};

} // namespace fodr
