// NtQueryInformationFile: one function a class, and a table of what each asks for.
#include "lib/unicode/NameMapping.h"
#include "ntposix/FileMetadata.h"
#include "ntposix/HandleTable.h"
#include "ntposix/InfoBuffer.h"
#include "ntposix/Lookup.h"
#include "ntposix/NamedStream.h"
#include "ntposix/NtCall.h"
#include "platform/NtRecords.h"

#include <algorithm>
#include <cerrno>
#include <string>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <vector>

namespace fodr::nt {

using namespace ntposix;

namespace {

struct FileQuery {
    OpenFile &open;
    FileMetadata facts; // of classes that need them
    InfoBuffer out;
};

uint32_t AttributesOf(const FileQuery &query)
{
    return CompleteAttributes(query.facts.attributes | (query.open.dotName ? FILE_ATTRIBUTE_HIDDEN : 0));
}

FILE_BASIC_INFORMATION Basic(const FileQuery &query)
{
    return {.CreationTime = query.facts.creationTime,
            .LastAccessTime = query.facts.lastAccessTime,
            .LastWriteTime = query.facts.lastWriteTime,
            .ChangeTime = query.facts.changeTime,
            .FileAttributes = AttributesOf(query)};
}

uint32_t ReparseTagOf(const FileQuery &query)
{
    return query.open.kind == FileKind::kLink ? IO_REPARSE_TAG_SYMLINK : 0;
}

// A name that is to be deleted doesn't count any more.
uint32_t LinksOf(const FileQuery &query, bool pending)
{
    return query.facts.links - (pending && query.facts.links > 0 ? 1 : 0);
}

FILE_STANDARD_INFORMATION Standard(const FileQuery &query)
{
    const bool pending = query.open.object->IsDeletePending(query.open);
    return {.AllocationSize = query.facts.allocation,
            .EndOfFile = query.facts.endOfFile,
            .NumberOfLinks = LinksOf(query, pending),
            .DeletePending = pending,
            .Directory = query.open.IsDirectory()};
}

FILE_INTERNAL_INFORMATION Internal(const FileQuery &query)
{
    return {.IndexNumber = static_cast<int64_t>(query.facts.id)};
}

bool IsRemovedDirectory(const OpenFile &open)
{
    return open.IsDirectory() && IsRemoved(open.fd.Get());
}

// From the root directory: the volume is the whole tree. A directory is told where it is now, whoever moved
// it; one that is removed, where it was opened.
std::u16string NameOf(const FileQuery &query, bool removed)
{
    const OpenFile &file = query.open.File();
    const bool moves = file.IsDirectory() && !removed;
    const std::string current = moves ? PathByKernel(file.fd.Get()) : std::string();
    std::u16string name = NtPathFromPosix(current.empty() ? file.object->PathOf(file) : current);
    if (query.open.stream)
        name += u':' + query.open.stream->Name();
    return name;
}

NTSTATUS QueryBasic(FileQuery &query)
{
    return query.out.Put(Basic(query));
}

NTSTATUS QueryStandard(FileQuery &query)
{
    return query.out.Put(Standard(query));
}

NTSTATUS QueryInternal(FileQuery &query)
{
    return query.out.Put(Internal(query));
}

NTSTATUS QueryEa(FileQuery &query)
{
    return query.out.Put(FILE_EA_INFORMATION{.EaSize = 0});
}

NTSTATUS QueryAccess(FileQuery &query)
{
    return query.out.Put(FILE_ACCESS_INFORMATION{.AccessFlags = query.open.access});
}

NTSTATUS QueryName(FileQuery &query)
{
    if (IsRemovedDirectory(query.open))
        return STATUS_FILE_DELETED;
    const std::u16string name = NameOf(query, false);
    const FILE_NAME_INFORMATION record{.FileNameLength = static_cast<uint32_t>(name.size() * 2),
                                       .FileName = {}};
    return query.out.PutWithText(record, offsetof(FILE_NAME_INFORMATION, FileName), name);
}

NTSTATUS QueryPosition(FileQuery &query)
{
    return query.out.Put(FILE_POSITION_INFORMATION{.CurrentByteOffset = query.open.position});
}

NTSTATUS QueryMode(FileQuery &query)
{
    return query.out.Put(FILE_MODE_INFORMATION{.Mode = query.open.mode});
}

NTSTATUS QueryAlignment(FileQuery &query)
{
    return query.out.Put(FILE_ALIGNMENT_INFORMATION{.AlignmentRequirement = 0});
}

NTSTATUS QueryAll(FileQuery &query)
{
    const std::u16string name = NameOf(query, IsRemovedDirectory(query.open));
    const FILE_ALL_INFORMATION record{
        .BasicInformation = Basic(query),
        .StandardInformation = Standard(query),
        .InternalInformation = Internal(query),
        .EaInformation = {.EaSize = 0},
        .AccessInformation = {.AccessFlags = query.open.access},
        .PositionInformation = {.CurrentByteOffset = query.open.position},
        .ModeInformation = {.Mode = query.open.mode},
        .AlignmentInformation = {.AlignmentRequirement = 0},
        .NameInformation = {.FileNameLength = static_cast<uint32_t>(name.size() * 2), .FileName = {}}};
    constexpr size_t kNameOffset =
        offsetof(FILE_ALL_INFORMATION, NameInformation) + offsetof(FILE_NAME_INFORMATION, FileName);
    return query.out.PutWithText(record, kNameOffset, name);
}

// Short names aren't made.
NTSTATUS QueryAlternateName(FileQuery &)
{
    return STATUS_OBJECT_NAME_NOT_FOUND;
}

NTSTATUS PutStream(InfoBuffer &out, const std::u16string &name, int64_t size, int64_t allocation)
{
    const std::u16string text = u":" + name + u":$DATA";
    const FILE_STREAM_INFORMATION record{.NextEntryOffset = 0,
                                         .StreamNameLength = static_cast<uint32_t>(text.size() * 2),
                                         .StreamSize = size,
                                         .StreamAllocationSize = allocation,
                                         .StreamName = {}};
    constexpr size_t kName = offsetof(FILE_STREAM_INFORMATION, StreamName);
    if (out.Written() == 0)
        return out.PutWithText(record, kName, text);
    // Where NT says STATUS_BUFFER_OVERFLOW: who asks for a client makes more room after this status alone.
    return out.AppendWithText(record, kName, text) ? STATUS_SUCCESS : STATUS_INFO_LENGTH_MISMATCH;
}

// The unnamed one that every file has, then the named ones. A directory has none of the first kind; no stream
// at all is told by no record.
NTSTATUS QueryStreams(FileQuery &query)
{
    const OpenFile &file = query.open.File();
    std::vector<StreamEntry> named;
    if (const int error = ListStreams(file.fd.Get(), &named); error != 0 && error != ENOTSUP)
        return StatusOfErrno(error);
    NTSTATUS status = STATUS_SUCCESS;
    if (!file.IsDirectory()) {
        FileMetadata facts;
        if (const int error = StatDescriptor(file.fd.Get(), &facts); error != 0)
            return StatusOfErrno(error);
        status = PutStream(query.out, u"", facts.endOfFile, facts.allocation);
    }
    for (auto entry = named.begin(); entry != named.end() && status == STATUS_SUCCESS; ++entry)
        status = PutStream(query.out, entry->name, entry->size, entry->size);
    return status;
}

NTSTATUS QueryCompression(FileQuery &query)
{
    return query.out.Put(FILE_COMPRESSION_INFORMATION{.CompressedFileSize = query.facts.allocation,
                                                      .CompressionFormat = COMPRESSION_FORMAT_NONE,
                                                      .CompressionUnitShift = 0,
                                                      .ChunkShift = 0,
                                                      .ClusterShift = 0,
                                                      .Reserved = {}});
}

NTSTATUS QueryNetworkOpen(FileQuery &query)
{
    return query.out.Put(FILE_NETWORK_OPEN_INFORMATION{.CreationTime = query.facts.creationTime,
                                                       .LastAccessTime = query.facts.lastAccessTime,
                                                       .LastWriteTime = query.facts.lastWriteTime,
                                                       .ChangeTime = query.facts.changeTime,
                                                       .AllocationSize = query.facts.allocation,
                                                       .EndOfFile = query.facts.endOfFile,
                                                       .FileAttributes = AttributesOf(query)});
}

NTSTATUS QueryAttributeTag(FileQuery &query)
{
    return query.out.Put(FILE_ATTRIBUTE_TAG_INFORMATION{.FileAttributes = AttributesOf(query),
                                                        .ReparseTag = ReparseTagOf(query)});
}

NTSTATUS QueryId(FileQuery &query)
{
    FILE_ID_INFORMATION record{.VolumeSerialNumber = query.facts.key.device, .FileId = {}};
    memcpy(record.FileId, &query.facts.id, sizeof(query.facts.id));
    return query.out.Put(record);
}

FILE_STAT_INFORMATION Stat(const FileQuery &query)
{
    return {.FileId = static_cast<int64_t>(query.facts.id),
            .CreationTime = query.facts.creationTime,
            .LastAccessTime = query.facts.lastAccessTime,
            .LastWriteTime = query.facts.lastWriteTime,
            .ChangeTime = query.facts.changeTime,
            .AllocationSize = query.facts.allocation,
            .EndOfFile = query.facts.endOfFile,
            .FileAttributes = AttributesOf(query),
            .ReparseTag = ReparseTagOf(query),
            .NumberOfLinks = LinksOf(query, query.open.object->IsDeletePending(query.open)),
            .EffectiveAccess = query.open.access};
}

NTSTATUS QueryStat(FileQuery &query)
{
    return query.out.Put(Stat(query));
}

NTSTATUS QueryStatLx(FileQuery &query)
{
    const FileMetadata &facts = query.facts;
    const bool isDevice = S_ISCHR(facts.mode) || S_ISBLK(facts.mode);
    const bool isExact = facts.kind == FileKind::kDirectory && query.open.File().IsCaseSensitive();
    return query.out.Put(FILE_STAT_LX_INFORMATION{
        .Stat = Stat(query),
        .LxFlags = LX_FILE_METADATA_HAS_UID | LX_FILE_METADATA_HAS_GID | LX_FILE_METADATA_HAS_MODE |
                   (isDevice ? LX_FILE_METADATA_HAS_DEVICE_ID : 0) |
                   (isExact ? LX_FILE_CASE_SENSITIVE_DIR : 0),
        .LxUid = facts.owner,
        .LxGid = facts.group,
        .LxMode = facts.mode,
        .LxDeviceIdMajor = major(facts.node),
        .LxDeviceIdMinor = minor(facts.node)});
}

NTSTATUS QueryCaseSensitive(FileQuery &query)
{
    return query.out.Put(FILE_CASE_SENSITIVE_INFORMATION{
        .Flags = query.open.File().IsCaseSensitive() ? FILE_CS_FLAG_CASE_SENSITIVE_DIR : 0});
}

struct QueryClass {
    uint32_t number;
    uint32_t minimumLength;
    uint32_t right; // 0: none is needed
    bool needsFacts;
    NTSTATUS (*query)(FileQuery &);
};

constexpr QueryClass kClasses[] = {
    {FileBasicInformation, sizeof(FILE_BASIC_INFORMATION), FILE_READ_ATTRIBUTES, true, &QueryBasic},
    {FileStandardInformation, sizeof(FILE_STANDARD_INFORMATION), 0, true, &QueryStandard},
    {FileInternalInformation, sizeof(FILE_INTERNAL_INFORMATION), 0, true, &QueryInternal},
    {FileEaInformation, sizeof(FILE_EA_INFORMATION), FILE_READ_EA, false, &QueryEa},
    {FileAccessInformation, sizeof(FILE_ACCESS_INFORMATION), 0, false, &QueryAccess},
    {FileNameInformation, sizeof(FILE_NAME_INFORMATION), 0, false, &QueryName},
    {FilePositionInformation, sizeof(FILE_POSITION_INFORMATION), 0, false, &QueryPosition},
    {FileModeInformation, sizeof(FILE_MODE_INFORMATION), 0, false, &QueryMode},
    {FileAlignmentInformation, sizeof(FILE_ALIGNMENT_INFORMATION), 0, false, &QueryAlignment},
    {FileAllInformation, sizeof(FILE_ALL_INFORMATION), FILE_READ_ATTRIBUTES, true, &QueryAll},
    {FileAlternateNameInformation, sizeof(FILE_NAME_INFORMATION), 0, false, &QueryAlternateName},
    {FileStreamInformation, sizeof(FILE_STREAM_INFORMATION), 0, false, &QueryStreams},
    {FileCompressionInformation, sizeof(FILE_COMPRESSION_INFORMATION), 0, true, &QueryCompression},
    {FileNetworkOpenInformation, sizeof(FILE_NETWORK_OPEN_INFORMATION), FILE_READ_ATTRIBUTES, true,
     &QueryNetworkOpen},
    {FileAttributeTagInformation, sizeof(FILE_ATTRIBUTE_TAG_INFORMATION), FILE_READ_ATTRIBUTES, true,
     &QueryAttributeTag},
    {FileIdInformation, sizeof(FILE_ID_INFORMATION), 0, true, &QueryId},
    {FileStatInformation, sizeof(FILE_STAT_INFORMATION), FILE_READ_ATTRIBUTES, true, &QueryStat},
    {FileStatLxInformation, sizeof(FILE_STAT_LX_INFORMATION), FILE_READ_ATTRIBUTES, true, &QueryStatLx},
    {FileCaseSensitiveInformation, sizeof(FILE_CASE_SENSITIVE_INFORMATION), FILE_READ_ATTRIBUTES, false,
     &QueryCaseSensitive},
};

NTSTATUS Query(OpenFile &open, InfoBuffer buffer, uint32_t infoClass, uint64_t *written)
{
    const auto found =
        std::find_if(std::begin(kClasses), std::end(kClasses),
                     [infoClass](const QueryClass &entry) { return entry.number == infoClass; });
    if (found == std::end(kClasses))
        return STATUS_INVALID_INFO_CLASS;
    if (buffer.Size() < found->minimumLength)
        return STATUS_INFO_LENGTH_MISMATCH;
    if (found->right != 0 && !open.HasAccess(found->right))
        return STATUS_ACCESS_DENIED;
    FileQuery query{open, {}, buffer};
    if (found->needsFacts) {
        if (const int error = open.Stat(&query.facts); error != 0)
            return StatusOfErrno(error);
    }
    // Listings don't tell these: there each entry would cost a call.
    const OpenFile &file = open.File();
    if (found->right == FILE_READ_ATTRIBUTES && found->needsFacts &&
        (file.kind == FileKind::kFile || file.IsDirectory()))
        query.facts.attributes |= ReadDosAttributes(file.fd.Get());
    const NTSTATUS status = found->query(query);
    *written = query.out.Written();
    return status;
}

} // namespace

NTSTATUS NtQueryInformationFile(HANDLE file, IO_STATUS_BLOCK *ioStatus, void *buffer, uint32_t length,
                                uint32_t infoClass)
{
    uint64_t written = 0;
    const NTSTATUS status = WithoutThrowing([&] {
        const OpenFileRef open = HandleTable::Instance().Find(file);
        return open ? Query(*open, InfoBuffer(buffer, length), infoClass, &written) : STATUS_INVALID_HANDLE;
    });
    return Complete(ioStatus, status, written);
}

} // namespace fodr::nt
