#include "fileservice/AllowListFileSystem.h"

#include "fileservice/NtCalls.h"
#include "lib/unicode/CodeSet.h"
#include "rdpdr/wire/DirectoryEntryShape.h"
#include "rdpdr/wire/RdpdrRecords.h"

#include <new>
#include <utility>

namespace fodr {

using namespace nt;

namespace {

constexpr uint32_t kBothNameOnWire = 93; // FileBothDirectoryInformation alone differs from its native form

bool TextOfBytes(const uint8_t *bytes, size_t count, std::string *text)
{
    std::u16string units(count / sizeof(char16_t), u'\0');
    memcpy(units.data(), bytes, units.size() * sizeof(char16_t));
    return Utf16ToUtf8(units, *text);
}

// Of the entry at the beginning of `entry`; false when it has none that is text.
bool NameOfEntry(std::span<const uint8_t> entry, const DirectoryEntryShape &shape, size_t nameOffset,
                 std::string *name)
{
    if (entry.size() < nameOffset)
        return false;
    size_t length = LoadLittle<uint32_t>(entry.data() + shape.nameLengthOffset);
    return length <= entry.size() - nameOffset && TextOfBytes(entry.data() + nameOffset, length, name);
}

NTSTATUS Refuse(IO_STATUS_BLOCK *ioStatus, NTSTATUS status)
{
    Clear(ioStatus);
    ioStatus->Status = status;
    return status;
}

} // namespace

std::unique_ptr<IFileSystem> AllowListFileSystem::Create(const std::string &root,
                                                         std::shared_ptr<const AllowAccessList> list,
                                                         ShareRules rules)
{
    std::unique_ptr<AllowListFileSystem> files(new (std::nothrow) AllowListFileSystem(root, std::move(list)));
    rules.exactRoot = true;
    if (files)
        files->KeepRoot(root, rules);
    return files;
}

AllowListFileSystem::AllowListFileSystem(const std::string &rootPath,
                                         std::shared_ptr<const AllowAccessList> list)
    : FileSystemImpl(rootPath, NameMatching::Exact), root(rootPath), allowed(std::move(list))
{}

NTSTATUS AllowListFileSystem::RedirectedCreateFile(uint32_t *fileId, uint32_t desiredAccess,
                                                   const char16_t *path, uint64_t allocationSize,
                                                   uint32_t fileAttributes, uint32_t shareAccess,
                                                   uint32_t createDisposition, uint32_t createOptions,
                                                   uint32_t *information, bool readOnly)
{
    std::string text;
    bool isRoot = Utf16ToUtf8(path, text) && allowed->IsRoot(text);
    if (isRoot && createOptions & FILE_DELETE_ON_CLOSE) {
        *fileId = *information = 0;
        return STATUS_ACCESS_DENIED;
    }
    NTSTATUS status = FileSystemImpl::RedirectedCreateFile(fileId, desiredAccess, path, allocationSize,
                                                           fileAttributes, shareAccess, createDisposition,
                                                           createOptions, information, readOnly);
    if (isRoot && !IsError(status)) {
        OVMutexLock held(rootsLock);
        roots[*fileId] = RootState::Unread;
    }
    return status;
}

NTSTATUS AllowListFileSystem::RedirectedCloseFile(uint32_t fileId)
{
    RootState state = StateOf(fileId);
    if (state != RootState::NotOpen) { // before the number can be another file's
        OVMutexLock held(rootsLock);
        roots.erase(fileId);
    }
    NTSTATUS status = FileSystemImpl::RedirectedCloseFile(fileId);
    if (state != RootState::NotOpen && IsError(status) && status != STATUS_INVALID_HANDLE) {
        OVMutexLock held(rootsLock);
        roots[fileId] = state;
    }
    return status;
}

AllowListFileSystem::RootState AllowListFileSystem::StateOf(uint32_t fileId)
{
    OVMutexLock held(rootsLock);
    auto found = roots.find(fileId);
    return found == roots.end() ? RootState::NotOpen : found->second;
}

NTSTATUS AllowListFileSystem::RedirectedSetInformationFile(uint32_t fileId, IO_STATUS_BLOCK *ioStatus,
                                                           uint8_t *buffer, uint32_t length,
                                                           uint32_t fileInfoClass)
{
    bool isRename = fileInfoClass == FileRenameInformation;
    if (StateOf(fileId) != RootState::NotOpen || (isRename && !MayBeRenamedTo(buffer, length)))
        return Refuse(ioStatus, STATUS_ACCESS_DENIED);
    // The list tells paths, which a directory by its handle doesn't have.
    if (fileInfoClass == FileRenameInformationEx)
        return Refuse(ioStatus, STATUS_INVALID_INFO_CLASS);
    return FileSystemImpl::RedirectedSetInformationFile(fileId, ioStatus, buffer, length, fileInfoClass);
}

// Of the text that the file call will be given. What is no proper rename it refuses itself.
bool AllowListFileSystem::MayBeRenamedTo(const uint8_t *wireRecord, uint32_t length) const
{
    constexpr size_t kName = kWireSize<RDP_FILE_RENAME_INFORMATION>;
    if (length < kName)
        return true;
    size_t nameLength = LoadRecord<RDP_FILE_RENAME_INFORMATION>(wireRecord).FileNameLength;
    std::string name;
    if (nameLength > length - kName || nameLength < sizeof(char16_t))
        return true;
    // Without its last unit, which is its terminator.
    if (!TextOfBytes(wireRecord + kName, nameLength - sizeof(char16_t), &name) ||
        name.find('\0') != std::string::npos)
        return false;
    return allowed->Covers(root + name) && allowed->IsWithinLimit(root + name);
}

NTSTATUS AllowListFileSystem::RedirectedQueryDirectoryFile(uint32_t fileId, IO_STATUS_BLOCK *ioStatus,
                                                           uint8_t **outBuffer, uint32_t fileInfoClass,
                                                           bool restartScan, const char16_t *pattern,
                                                           bool multiEntry)
{
    RootState state = StateOf(fileId);
    if (state == RootState::NotOpen)
        return FileSystemImpl::RedirectedQueryDirectoryFile(fileId, ioStatus, outBuffer, fileInfoClass,
                                                            restartScan, pattern, multiEntry);
    *outBuffer = nullptr;
    const bool continues = !restartScan && (!pattern || !*pattern);
    if (continues && state == RootState::Unread)
        return Refuse(ioStatus, STATUS_NO_MORE_FILES); // of a listing that came from elsewhere
    if (!FindDirectoryEntryShape(fileInfoClass))
        return Refuse(ioStatus, STATUS_INVALID_INFO_CLASS);
    {
        OVMutexLock held(rootsLock);
        roots[fileId] = RootState::Read;
    }
    const bool chained = multiEntry && (fileInfoClass == FileFullDirectoryInformation ||
                                        fileInfoClass == FileBothDirectoryInformation);
    for (bool first = true;; first = false) {
        uint8_t *block = nullptr;
        NTSTATUS status = FileSystemImpl::RedirectedQueryDirectoryFile(fileId, ioStatus, &block,
                                                                       fileInfoClass, first && restartScan,
                                                                       first ? pattern : nullptr, multiEntry);
        MallocBuffer entries(block, block ? static_cast<size_t>(ioStatus->Information) : 0);
        if (status != STATUS_SUCCESS) {
            // A search that found only what isn't shown has found nothing.
            bool foundNothing = status == STATUS_NO_MORE_FILES && !first && !continues;
            return Refuse(ioStatus, foundNothing ? STATUS_NO_SUCH_FILE : status);
        }
        if (size_t kept = KeepShown(entries, fileInfoClass, chained)) {
            ioStatus->Information = kept;
            *outBuffer = entries.Release();
            return status;
        }
    }
}

size_t AllowListFileSystem::KeepShown(MallocBuffer &entries, uint32_t infoClass, bool chained) const
{
    const DirectoryEntryShape &shape = *FindDirectoryEntryShape(infoClass);
    const size_t name =
        infoClass == FileBothDirectoryInformation && !chained ? kBothNameOnWire : shape.nameOffset;
    uint8_t *base = entries.Data();
    size_t kept = 0;
    uint8_t *lastKept = nullptr;
    for (size_t at = 0, next = 0; at + sizeof(uint32_t) <= entries.Size(); at += next) {
        next = LoadLittle<uint32_t>(base + at);
        const size_t rest = entries.Size() - at;
        const size_t size = next == 0 || next > rest ? rest : next;
        std::string text;
        if (NameOfEntry({base + at, size}, shape, name, &text) && allowed->Shows(text)) {
            lastKept = base + kept;
            memmove(lastKept, base + at, size);
            StoreLittle(lastKept, static_cast<uint32_t>(size));
            kept += size;
        }
        if (next == 0)
            break;
    }
    if (lastKept)
        StoreLittle(lastKept, uint32_t{0});
    return kept;
}

NTSTATUS AllowListFileSystem::RedirectedDeviceIoControlFile(uint32_t fileId, IO_STATUS_BLOCK *ioStatus,
                                                            uint32_t controlCode, const void *input,
                                                            uint32_t inputLength, void *output,
                                                            uint32_t outputLength)
{
    // Some controls list a directory, others change it; this one tells of the host alone.
    if (controlCode != FSCTL_FODR_QUERY_HOST && StateOf(fileId) != RootState::NotOpen)
        return Refuse(ioStatus, STATUS_INVALID_DEVICE_REQUEST);
    return FileSystemImpl::RedirectedDeviceIoControlFile(fileId, ioStatus, controlCode, input, inputLength,
                                                         output, outputLength);
}

} // namespace fodr
