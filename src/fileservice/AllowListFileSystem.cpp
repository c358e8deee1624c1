#include "fileservice/AllowListFileSystem.h"

#include "fileservice/FileCall.h"
#include "lib/unicode/CodeSet.h"
#include "rdpdr/wire/RdpdrConstants.h"
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
    const bool isText = Utf16ToUtf8(path, text);
    if (isText && IsForeignMark(text))
        return OpenForeignMark(fileId, desiredAccess, path, shareAccess, createDisposition, createOptions,
                               information);
    const bool isRoot = isText && allowed->IsRoot(text);
    if (isRoot && createOptions & FILE_DELETE_ON_CLOSE) {
        *fileId = *information = 0;
        return STATUS_ACCESS_DENIED;
    }
    NTSTATUS status = FileSystemImpl::RedirectedCreateFile(fileId, desiredAccess, path, allocationSize,
                                                           fileAttributes, shareAccess, createDisposition,
                                                           createOptions, information, readOnly);
    if (isRoot && !IsError(status)) {
        OVMutexLock held(handlesLock);
        handles[*fileId] = Kind::RootUnread;
    }
    return status;
}

bool AllowListFileSystem::IsForeignMark(const std::string &absolutePath) const
{
    if (!IsZoneMark(absolutePath))
        return false;
    const std::string file = absolutePath.substr(0, absolutePath.rfind(':'));
    return !allowed->Covers(file) || !allowed->IsWithinLimit(file);
}

// A mark that isn't there isn't made: the system would make its file, too. Why it can't be opened would tell
// of the file.
NTSTATUS AllowListFileSystem::OpenForeignMark(uint32_t *fileId, uint32_t desiredAccess, const char16_t *path,
                                              uint32_t shareAccess, uint32_t createDisposition,
                                              uint32_t createOptions, uint32_t *information)
{
    constexpr uint32_t kReading = FILE_READ_DATA | FILE_READ_EA | FILE_READ_ATTRIBUTES | READ_CONTROL |
                                  SYNCHRONIZE | GENERIC_READ | MAXIMUM_ALLOWED;
    *fileId = *information = 0;
    const bool opens = createDisposition == FILE_OPEN || createDisposition == FILE_OPEN_IF;
    if (!opens || (desiredAccess & ~kReading) != 0 || (createOptions & FILE_DELETE_ON_CLOSE) != 0)
        return STATUS_ACCESS_DENIED;
    NTSTATUS status =
        FileSystemImpl::RedirectedCreateFile(fileId, FILE_READ_DATA | SYNCHRONIZE, path, 0, 0, shareAccess,
                                             FILE_OPEN, createOptions, information, false);
    if (IsError(status)) {
        *information = 0;
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    OVMutexLock held(handlesLock);
    handles[*fileId] = Kind::ForeignMark;
    return status;
}

NTSTATUS AllowListFileSystem::RedirectedCloseFile(uint32_t fileId)
{
    const Kind kind = KindOf(fileId);
    if (kind != Kind::Listed) { // before the number can be another file's
        OVMutexLock held(handlesLock);
        handles.erase(fileId);
    }
    NTSTATUS status = FileSystemImpl::RedirectedCloseFile(fileId);
    if (kind != Kind::Listed && IsError(status) && status != STATUS_INVALID_HANDLE) {
        OVMutexLock held(handlesLock);
        handles[fileId] = kind;
    }
    return status;
}

AllowListFileSystem::Kind AllowListFileSystem::KindOf(uint32_t fileId)
{
    OVMutexLock held(handlesLock);
    auto found = handles.find(fileId);
    return found == handles.end() ? Kind::Listed : found->second;
}

// A mark shows its size. Times, attributes, names and links belong to its file.
NTSTATUS AllowListFileSystem::RedirectedQueryInformationFile(uint32_t fileId, IO_STATUS_BLOCK *ioStatus,
                                                             uint8_t **outBuffer, uint32_t fileInfoClass)
{
    const bool isMark = KindOf(fileId) == Kind::ForeignMark;
    if (isMark && fileInfoClass != FileStandardInformation) {
        *outBuffer = nullptr;
        return Refuse(ioStatus, STATUS_ACCESS_DENIED);
    }
    NTSTATUS status =
        FileSystemImpl::RedirectedQueryInformationFile(fileId, ioStatus, outBuffer, fileInfoClass);
    constexpr size_t kLinks = offsetof(FILE_STANDARD_INFORMATION, NumberOfLinks);
    if (isMark && *outBuffer && ioStatus->Information >= kLinks + sizeof(uint32_t))
        StoreLittle(*outBuffer + kLinks, uint32_t{1});
    return status;
}

NTSTATUS AllowListFileSystem::RedirectedSetInformationFile(uint32_t fileId, IO_STATUS_BLOCK *ioStatus,
                                                           uint8_t *buffer, uint32_t length,
                                                           uint32_t fileInfoClass)
{
    bool isRename = fileInfoClass == FileRenameInformation;
    if (KindOf(fileId) != Kind::Listed || (isRename && !MayBeRenamedTo(buffer, length)))
        return Refuse(ioStatus, STATUS_ACCESS_DENIED);
    // The list tells paths, which a directory by its handle doesn't have.
    if (fileInfoClass == FileRenameInformationEx || fileInfoClass == FileLinkInformation)
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
    if (nameLength < sizeof(char16_t))
        return false; // would cut the root's own name
    if (nameLength > length - kName)
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
    const Kind kind = KindOf(fileId);
    if (!IsRoot(kind))
        return FileSystemImpl::RedirectedQueryDirectoryFile(fileId, ioStatus, outBuffer, fileInfoClass,
                                                            restartScan, pattern, multiEntry);
    *outBuffer = nullptr;
    const bool continues = !restartScan && (!pattern || !*pattern);
    if (continues && kind == Kind::RootUnread)
        return Refuse(ioStatus, STATUS_NO_MORE_FILES); // of a listing that came from elsewhere
    if (!FindDirectoryEntryShape(fileInfoClass))
        return Refuse(ioStatus, STATUS_INVALID_INFO_CLASS);
    {
        OVMutexLock held(handlesLock);
        handles[fileId] = Kind::RootRead;
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

// Copying must not reveal a mark's file either.
bool AllowListFileSystem::CopiesListed(const void *input, uint32_t length)
{
    return length < sizeof(FODR_RANGE_COPY) ||
           KindOf(LoadLittle<uint32_t>(static_cast<const uint8_t *>(input))) == Kind::Listed;
}

NTSTATUS AllowListFileSystem::RedirectedDeviceIoControlFile(uint32_t fileId, IO_STATUS_BLOCK *ioStatus,
                                                            uint32_t controlCode, const void *input,
                                                            uint32_t inputLength, void *output,
                                                            uint32_t outputLength)
{
    // Some controls list a directory, others change it or tell of a mark's file; this one tells of the host.
    if (controlCode != FSCTL_FODR_QUERY_HOST && KindOf(fileId) != Kind::Listed)
        return Refuse(ioStatus, STATUS_INVALID_DEVICE_REQUEST);
    if (controlCode == FSCTL_FODR_COPY_RANGE && !CopiesListed(input, inputLength))
        return Refuse(ioStatus, STATUS_ACCESS_DENIED);
    return FileSystemImpl::RedirectedDeviceIoControlFile(fileId, ioStatus, controlCode, input, inputLength,
                                                         output, outputLength);
}

} // namespace fodr
