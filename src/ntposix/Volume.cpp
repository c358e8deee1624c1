// NtQueryVolumeInformationFile and NtSetVolumeInformationFile: the file system that an open file is on.
#include "ntposix/HandleTable.h"
#include "ntposix/InfoBuffer.h"
#include "ntposix/NamedStream.h"
#include "ntposix/NtCall.h"
#include "platform/NtRecords.h"

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <sys/statfs.h>
#include <sys/statvfs.h>

namespace fodr::nt {

using namespace ntposix;

namespace {

constexpr uint32_t kSector = 512;
constexpr int64_t kIso9660 = 0x9660;
constexpr int64_t kUdf = 0x15013346;

struct VolumeQuery {
    const struct statfs &volume;
    int file;
    InfoBuffer out;

    bool IsReadOnly() const { return (volume.f_flags & ST_RDONLY) != 0; }
    bool IsOptical() const { return volume.f_type == kIso9660 || volume.f_type == kUdf; }
};

// An allocation unit in sectors, or as one sector where it isn't made of them.
struct Unit {
    uint32_t sectors;
    uint32_t bytesPerSector;
};

Unit UnitOf(const struct statfs &volume)
{
    const auto bytes = static_cast<uint32_t>(volume.f_frsize ? volume.f_frsize : volume.f_bsize);
    if (bytes >= kSector && bytes % kSector == 0)
        return {bytes / kSector, kSector};
    return {1, bytes};
}

uint32_t SerialNumber(const struct statfs &volume)
{
    uint32_t parts[2];
    static_assert(sizeof(parts) == sizeof(volume.f_fsid));
    memcpy(parts, &volume.f_fsid, sizeof(parts));
    return parts[0] ^ parts[1];
}

NTSTATUS QueryVolume(VolumeQuery &query)
{
    const FILE_FS_VOLUME_INFORMATION record{.VolumeCreationTime = 0,
                                            .VolumeSerialNumber = SerialNumber(query.volume),
                                            .VolumeLabelLength = 0,
                                            .SupportsObjects = 0,
                                            .VolumeLabel = {}};
    return query.out.PutWithText(record, offsetof(FILE_FS_VOLUME_INFORMATION, VolumeLabel), u"");
}

NTSTATUS QuerySize(VolumeQuery &query)
{
    const Unit unit = UnitOf(query.volume);
    return query.out.Put(
        FILE_FS_SIZE_INFORMATION{.TotalAllocationUnits = static_cast<int64_t>(query.volume.f_blocks),
                                 .AvailableAllocationUnits = static_cast<int64_t>(query.volume.f_bavail),
                                 .SectorsPerAllocationUnit = unit.sectors,
                                 .BytesPerSector = unit.bytesPerSector});
}

NTSTATUS QueryDevice(VolumeQuery &query)
{
    const uint32_t optical = query.IsOptical() ? FILE_REMOVABLE_MEDIA : 0;
    const uint32_t readOnly = query.IsReadOnly() ? FILE_READ_ONLY_DEVICE : 0;
    return query.out.Put(
        FILE_FS_DEVICE_INFORMATION{.DeviceType = query.IsOptical() ? FILE_DEVICE_CD_ROM : FILE_DEVICE_DISK,
                                   .Characteristics = FILE_DEVICE_IS_MOUNTED | optical | readOnly});
}

// The name stands for how files behave here, which programs choose by it.
NTSTATUS QueryAttributes(VolumeQuery &query)
{
    constexpr std::u16string_view kName = u"NTFS";
    const FILE_FS_ATTRIBUTE_INFORMATION record{
        .FileSystemAttributes = FILE_CASE_SENSITIVE_SEARCH | FILE_CASE_PRESERVED_NAMES |
                                FILE_UNICODE_ON_DISK | FILE_SUPPORTS_SPARSE_FILES |
                                (HasStreams(query.file) ? FILE_NAMED_STREAMS : 0) |
                                (query.IsReadOnly() ? FILE_READ_ONLY_VOLUME : 0),
        .MaximumComponentNameLength = static_cast<int32_t>(query.volume.f_namelen),
        .FileSystemNameLength = kName.size() * sizeof(char16_t),
        .FileSystemName = {}};
    return query.out.PutWithText(record, offsetof(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemName), kName);
}

NTSTATUS QueryFullSize(VolumeQuery &query)
{
    const Unit unit = UnitOf(query.volume);
    return query.out.Put(FILE_FS_FULL_SIZE_INFORMATION{
        .TotalAllocationUnits = static_cast<int64_t>(query.volume.f_blocks),
        .CallerAvailableAllocationUnits = static_cast<int64_t>(query.volume.f_bavail),
        .ActualAvailableAllocationUnits = static_cast<int64_t>(query.volume.f_bfree),
        .SectorsPerAllocationUnit = unit.sectors,
        .BytesPerSector = unit.bytesPerSector});
}

NTSTATUS QueryObjectId(VolumeQuery &)
{
    return STATUS_INVALID_DEVICE_REQUEST;
}

NTSTATUS QuerySectorSize(VolumeQuery &query)
{
    constexpr uint32_t kAligned = 3; // the device and its partition
    const Unit unit = UnitOf(query.volume);
    const uint32_t physical = unit.sectors * unit.bytesPerSector;
    return query.out.Put(
        FILE_FS_SECTOR_SIZE_INFORMATION{.LogicalBytesPerSector = unit.bytesPerSector,
                                        .PhysicalBytesPerSectorForAtomicity = physical,
                                        .PhysicalBytesPerSectorForPerformance = physical,
                                        .FileSystemEffectivePhysicalBytesPerSectorForAtomicity = physical,
                                        .Flags = kAligned,
                                        .ByteOffsetForSectorAlignment = 0,
                                        .ByteOffsetForPartitionAlignment = 0});
}

struct VolumeClass {
    uint32_t number;
    uint32_t minimumLength;
    NTSTATUS (*query)(VolumeQuery &);
};

constexpr VolumeClass kClasses[] = {
    {FileFsVolumeInformation, sizeof(FILE_FS_VOLUME_INFORMATION), &QueryVolume},
    {FileFsSizeInformation, sizeof(FILE_FS_SIZE_INFORMATION), &QuerySize},
    {FileFsDeviceInformation, sizeof(FILE_FS_DEVICE_INFORMATION), &QueryDevice},
    {FileFsAttributeInformation, sizeof(FILE_FS_ATTRIBUTE_INFORMATION), &QueryAttributes},
    {FileFsFullSizeInformation, sizeof(FILE_FS_FULL_SIZE_INFORMATION), &QueryFullSize},
    {FileFsObjectIdInformation, 64, &QueryObjectId},
    {FileFsSectorSizeInformation, sizeof(FILE_FS_SECTOR_SIZE_INFORMATION), &QuerySectorSize},
};

NTSTATUS Query(const OpenFile &open, InfoBuffer buffer, uint32_t infoClass, uint64_t *written)
{
    const auto found =
        std::find_if(std::begin(kClasses), std::end(kClasses),
                     [infoClass](const VolumeClass &entry) { return entry.number == infoClass; });
    if (found == std::end(kClasses))
        return STATUS_INVALID_INFO_CLASS;
    if (buffer.Size() < found->minimumLength)
        return STATUS_INFO_LENGTH_MISMATCH;
    struct statfs volume;
    if (fstatfs(open.File().fd.Get(), &volume) != 0)
        return StatusOfErrno(errno);
    VolumeQuery query{volume, open.File().fd.Get(), buffer};
    const NTSTATUS status = found->query(query);
    *written = query.out.Written();
    return status;
}

} // namespace

NTSTATUS NtQueryVolumeInformationFile(HANDLE file, IO_STATUS_BLOCK *ioStatus, void *buffer, uint32_t length,
                                      uint32_t infoClass)
{
    uint64_t written = 0;
    const OpenFileRef open = HandleTable::Instance().Find(file);
    const NTSTATUS status =
        open ? Query(*open, InfoBuffer(buffer, length), infoClass, &written) : STATUS_INVALID_HANDLE;
    return Complete(ioStatus, status, written);
}

// No fact of a volume can be set.
NTSTATUS NtSetVolumeInformationFile(HANDLE file, IO_STATUS_BLOCK *ioStatus, const void *, uint32_t, uint32_t)
{
    const OpenFileRef open = HandleTable::Instance().Find(file);
    return Complete(ioStatus, open ? STATUS_INVALID_INFO_CLASS : STATUS_INVALID_HANDLE, 0);
}

} // namespace fodr::nt
