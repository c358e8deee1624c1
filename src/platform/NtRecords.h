// The records that the NT file calls fill and read, in their native layout (MS-FSCC 2.4, 2.5 and 2.7).
//
// Buffers of callers needn't be aligned: copy a record in and out with memcpy. A record that ends in text is
// sizeof() long only nominally; its text starts at offsetof(FileName) (or StreamName, VolumeLabel ...).
// Lengths of texts are in bytes. Times are 100 ns steps since 1601-01-01 UTC.
#pragma once

#include <cstddef>
#include <cstdint>

namespace fodr::nt {

// FileInformationClass (MS-FSCC 2.4).
inline constexpr uint32_t FileDirectoryInformation = 1;
inline constexpr uint32_t FileFullDirectoryInformation = 2;
inline constexpr uint32_t FileBothDirectoryInformation = 3;
inline constexpr uint32_t FileBasicInformation = 4;
inline constexpr uint32_t FileStandardInformation = 5;
inline constexpr uint32_t FileInternalInformation = 6;
inline constexpr uint32_t FileEaInformation = 7;
inline constexpr uint32_t FileAccessInformation = 8;
inline constexpr uint32_t FileNameInformation = 9;
inline constexpr uint32_t FileRenameInformation = 10;
inline constexpr uint32_t FileLinkInformation = 11;
inline constexpr uint32_t FileNamesInformation = 12;
inline constexpr uint32_t FileDispositionInformation = 13;
inline constexpr uint32_t FilePositionInformation = 14;
inline constexpr uint32_t FileModeInformation = 16;
inline constexpr uint32_t FileAlignmentInformation = 17;
inline constexpr uint32_t FileAllInformation = 18;
inline constexpr uint32_t FileAllocationInformation = 19;
inline constexpr uint32_t FileEndOfFileInformation = 20;
inline constexpr uint32_t FileAlternateNameInformation = 21;
inline constexpr uint32_t FileStreamInformation = 22;
inline constexpr uint32_t FileCompressionInformation = 28;
inline constexpr uint32_t FileNetworkOpenInformation = 34;
inline constexpr uint32_t FileAttributeTagInformation = 35;
inline constexpr uint32_t FileIdBothDirectoryInformation = 37;
inline constexpr uint32_t FileIdFullDirectoryInformation = 38;
inline constexpr uint32_t FileIdInformation = 59;
inline constexpr uint32_t FileDispositionInformationEx = 64;
inline constexpr uint32_t FileRenameInformationEx = 65;
inline constexpr uint32_t FileStatInformation = 68;
inline constexpr uint32_t FileStatLxInformation = 70;
inline constexpr uint32_t FileCaseSensitiveInformation = 71;

// FsInformationClass (MS-FSCC 2.5).
inline constexpr uint32_t FileFsVolumeInformation = 1;
inline constexpr uint32_t FileFsLabelInformation = 2;
inline constexpr uint32_t FileFsSizeInformation = 3;
inline constexpr uint32_t FileFsDeviceInformation = 4;
inline constexpr uint32_t FileFsAttributeInformation = 5;
inline constexpr uint32_t FileFsControlInformation = 6;
inline constexpr uint32_t FileFsFullSizeInformation = 7;
inline constexpr uint32_t FileFsObjectIdInformation = 8;
inline constexpr uint32_t FileFsSectorSizeInformation = 11;

// What every listing entry but the names-only one begins with.
struct FILE_DIRECTORY_INFORMATION {
    uint32_t NextEntryOffset; // from the start of this entry; 0 in the last
    uint32_t FileIndex;
    int64_t CreationTime;
    int64_t LastAccessTime;
    int64_t LastWriteTime;
    int64_t ChangeTime;
    int64_t EndOfFile;
    int64_t AllocationSize;
    uint32_t FileAttributes;
    uint32_t FileNameLength;
    char16_t FileName[1];
};
static_assert(sizeof(FILE_DIRECTORY_INFORMATION) == 72);
static_assert(offsetof(FILE_DIRECTORY_INFORMATION, CreationTime) == 8);
static_assert(offsetof(FILE_DIRECTORY_INFORMATION, FileAttributes) == 56);
static_assert(offsetof(FILE_DIRECTORY_INFORMATION, FileName) == 64);

struct FILE_FULL_DIR_INFORMATION {
    uint32_t NextEntryOffset;
    uint32_t FileIndex;
    int64_t CreationTime;
    int64_t LastAccessTime;
    int64_t LastWriteTime;
    int64_t ChangeTime;
    int64_t EndOfFile;
    int64_t AllocationSize;
    uint32_t FileAttributes;
    uint32_t FileNameLength;
    uint32_t EaSize;
    char16_t FileName[1];
};
static_assert(sizeof(FILE_FULL_DIR_INFORMATION) == 72);
static_assert(offsetof(FILE_FULL_DIR_INFORMATION, EaSize) == 64);
static_assert(offsetof(FILE_FULL_DIR_INFORMATION, FileName) == 68);

struct FILE_BOTH_DIR_INFORMATION {
    uint32_t NextEntryOffset;
    uint32_t FileIndex;
    int64_t CreationTime;
    int64_t LastAccessTime;
    int64_t LastWriteTime;
    int64_t ChangeTime;
    int64_t EndOfFile;
    int64_t AllocationSize;
    uint32_t FileAttributes;
    uint32_t FileNameLength;
    uint32_t EaSize;
    int8_t ShortNameLength;
    char16_t ShortName[12];
    char16_t FileName[1];
};
static_assert(sizeof(FILE_BOTH_DIR_INFORMATION) == 96);
static_assert(offsetof(FILE_BOTH_DIR_INFORMATION, ShortNameLength) == 68);
static_assert(offsetof(FILE_BOTH_DIR_INFORMATION, ShortName) == 70);
static_assert(offsetof(FILE_BOTH_DIR_INFORMATION, FileName) == 94);

// What stands in ShortName where this system lists files itself: it makes no short names (ShortNameLength is
// 0). An id of 0: no facts could be had of the entry, and Mode has its type alone.
struct FODR_LISTED_FILE {
    uint64_t FileId;
    uint32_t Mode; // st_mode
    uint32_t Owner;
    uint32_t Group;
    uint32_t Links;
};
static_assert(sizeof(FODR_LISTED_FILE) == sizeof(FILE_BOTH_DIR_INFORMATION::ShortName));
static_assert(offsetof(FODR_LISTED_FILE, Mode) == 8);
static_assert(offsetof(FODR_LISTED_FILE, Links) == 20);

struct FILE_ID_BOTH_DIR_INFORMATION {
    uint32_t NextEntryOffset;
    uint32_t FileIndex;
    int64_t CreationTime;
    int64_t LastAccessTime;
    int64_t LastWriteTime;
    int64_t ChangeTime;
    int64_t EndOfFile;
    int64_t AllocationSize;
    uint32_t FileAttributes;
    uint32_t FileNameLength;
    uint32_t EaSize;
    int8_t ShortNameLength;
    char16_t ShortName[12];
    int64_t FileId;
    char16_t FileName[1];
};
static_assert(sizeof(FILE_ID_BOTH_DIR_INFORMATION) == 112);
static_assert(offsetof(FILE_ID_BOTH_DIR_INFORMATION, ShortName) == 70);
static_assert(offsetof(FILE_ID_BOTH_DIR_INFORMATION, FileId) == 96);
static_assert(offsetof(FILE_ID_BOTH_DIR_INFORMATION, FileName) == 104);

struct FILE_ID_FULL_DIR_INFORMATION {
    uint32_t NextEntryOffset;
    uint32_t FileIndex;
    int64_t CreationTime;
    int64_t LastAccessTime;
    int64_t LastWriteTime;
    int64_t ChangeTime;
    int64_t EndOfFile;
    int64_t AllocationSize;
    uint32_t FileAttributes;
    uint32_t FileNameLength;
    uint32_t EaSize;
    int64_t FileId;
    char16_t FileName[1];
};
static_assert(sizeof(FILE_ID_FULL_DIR_INFORMATION) == 88);
static_assert(offsetof(FILE_ID_FULL_DIR_INFORMATION, FileId) == 72);
static_assert(offsetof(FILE_ID_FULL_DIR_INFORMATION, FileName) == 80);

struct FILE_NAMES_INFORMATION {
    uint32_t NextEntryOffset;
    uint32_t FileIndex;
    uint32_t FileNameLength;
    char16_t FileName[1];
};
static_assert(sizeof(FILE_NAMES_INFORMATION) == 16);
static_assert(offsetof(FILE_NAMES_INFORMATION, FileName) == 12);

struct FILE_BASIC_INFORMATION {
    int64_t CreationTime; // in a set: 0 leaves it, -1 and -2 too (MS-FSCC 2.4.7)
    int64_t LastAccessTime;
    int64_t LastWriteTime;
    int64_t ChangeTime;
    uint32_t FileAttributes; // in a set: 0 leaves them
};
static_assert(sizeof(FILE_BASIC_INFORMATION) == 40);
static_assert(offsetof(FILE_BASIC_INFORMATION, FileAttributes) == 32);

struct FILE_STANDARD_INFORMATION {
    int64_t AllocationSize;
    int64_t EndOfFile;
    uint32_t NumberOfLinks;
    uint8_t DeletePending;
    uint8_t Directory;
};
static_assert(sizeof(FILE_STANDARD_INFORMATION) == 24);
static_assert(offsetof(FILE_STANDARD_INFORMATION, NumberOfLinks) == 16);
static_assert(offsetof(FILE_STANDARD_INFORMATION, Directory) == 21);

struct FILE_INTERNAL_INFORMATION {
    int64_t IndexNumber;
};
static_assert(sizeof(FILE_INTERNAL_INFORMATION) == 8);

struct FILE_EA_INFORMATION {
    uint32_t EaSize;
};
static_assert(sizeof(FILE_EA_INFORMATION) == 4);

struct FILE_ACCESS_INFORMATION {
    uint32_t AccessFlags;
};
static_assert(sizeof(FILE_ACCESS_INFORMATION) == 4);

struct FILE_NAME_INFORMATION {
    uint32_t FileNameLength;
    char16_t FileName[1];
};
static_assert(sizeof(FILE_NAME_INFORMATION) == 8);
static_assert(offsetof(FILE_NAME_INFORMATION, FileName) == 4);

struct FILE_RENAME_INFORMATION {
    uint8_t ReplaceIfExists;
    uint64_t RootDirectory; // a handle, or 0 with an absolute name
    uint32_t FileNameLength;
    char16_t FileName[1];
};
static_assert(sizeof(FILE_RENAME_INFORMATION) == 24);
static_assert(offsetof(FILE_RENAME_INFORMATION, RootDirectory) == 8);
static_assert(offsetof(FILE_RENAME_INFORMATION, FileNameLength) == 16);
static_assert(offsetof(FILE_RENAME_INFORMATION, FileName) == 20);

struct FILE_LINK_INFORMATION {
    uint8_t ReplaceIfExists;
    uint64_t RootDirectory;
    uint32_t FileNameLength;
    char16_t FileName[1];
};
static_assert(sizeof(FILE_LINK_INFORMATION) == 24);
static_assert(offsetof(FILE_LINK_INFORMATION, RootDirectory) == 8);
static_assert(offsetof(FILE_LINK_INFORMATION, FileNameLength) == 16);
static_assert(offsetof(FILE_LINK_INFORMATION, FileName) == 20);

struct FILE_DISPOSITION_INFORMATION {
    uint8_t DeleteFile;
};
static_assert(sizeof(FILE_DISPOSITION_INFORMATION) == 1);

struct FILE_DISPOSITION_INFORMATION_EX {
    uint32_t Flags; // FILE_DISPOSITION_*
};
static_assert(sizeof(FILE_DISPOSITION_INFORMATION_EX) == 4);

// FILE_DISPOSITION_INFORMATION_EX (MS-FSCC 2.4.11).
inline constexpr uint32_t FILE_DISPOSITION_DELETE = 0x1;
inline constexpr uint32_t FILE_DISPOSITION_POSIX_SEMANTICS = 0x2; // the name goes at once
inline constexpr uint32_t FILE_DISPOSITION_ON_CLOSE = 0x8;        // sets or clears FILE_DELETE_ON_CLOSE
inline constexpr uint32_t FILE_DISPOSITION_IGNORE_READONLY_ATTRIBUTE = 0x10;

struct FILE_RENAME_INFORMATION_EX {
    uint32_t Flags; // FILE_RENAME_*
    uint64_t RootDirectory;
    uint32_t FileNameLength;
    char16_t FileName[1];
};
static_assert(sizeof(FILE_RENAME_INFORMATION_EX) == 24);
static_assert(offsetof(FILE_RENAME_INFORMATION_EX, RootDirectory) == 8);
static_assert(offsetof(FILE_RENAME_INFORMATION_EX, FileNameLength) == 16);
static_assert(offsetof(FILE_RENAME_INFORMATION_EX, FileName) == 20);

// FILE_RENAME_INFORMATION_EX (MS-FSCC 2.4.43).
inline constexpr uint32_t FILE_RENAME_REPLACE_IF_EXISTS = 0x1;
inline constexpr uint32_t FILE_RENAME_POSIX_SEMANTICS = 0x2; // as rename(2), whatever has the target open
inline constexpr uint32_t FILE_RENAME_IGNORE_READONLY_ATTRIBUTE = 0x40;
// A private one, of hosts with FODR_HOST_EXCHANGE: both names are there and change places in one step.
inline constexpr uint32_t FODR_RENAME_EXCHANGE = 0x8000'0000;

struct FILE_POSITION_INFORMATION {
    int64_t CurrentByteOffset;
};
static_assert(sizeof(FILE_POSITION_INFORMATION) == 8);

struct FILE_MODE_INFORMATION {
    uint32_t Mode; // those of the CreateOptions that describe how I/O is done
};
static_assert(sizeof(FILE_MODE_INFORMATION) == 4);

struct FILE_ALIGNMENT_INFORMATION {
    uint32_t AlignmentRequirement;
};
static_assert(sizeof(FILE_ALIGNMENT_INFORMATION) == 4);

struct FILE_ALL_INFORMATION {
    FILE_BASIC_INFORMATION BasicInformation;
    FILE_STANDARD_INFORMATION StandardInformation;
    FILE_INTERNAL_INFORMATION InternalInformation;
    FILE_EA_INFORMATION EaInformation;
    FILE_ACCESS_INFORMATION AccessInformation;
    FILE_POSITION_INFORMATION PositionInformation;
    FILE_MODE_INFORMATION ModeInformation;
    FILE_ALIGNMENT_INFORMATION AlignmentInformation;
    FILE_NAME_INFORMATION NameInformation;
};
static_assert(sizeof(FILE_ALL_INFORMATION) == 104);
static_assert(offsetof(FILE_ALL_INFORMATION, StandardInformation) == 40);
static_assert(offsetof(FILE_ALL_INFORMATION, InternalInformation) == 64);
static_assert(offsetof(FILE_ALL_INFORMATION, EaInformation) == 72);
static_assert(offsetof(FILE_ALL_INFORMATION, AccessInformation) == 76);
static_assert(offsetof(FILE_ALL_INFORMATION, PositionInformation) == 80);
static_assert(offsetof(FILE_ALL_INFORMATION, ModeInformation) == 88);
static_assert(offsetof(FILE_ALL_INFORMATION, NameInformation) == 96);

struct FILE_ALLOCATION_INFORMATION {
    int64_t AllocationSize;
};
static_assert(sizeof(FILE_ALLOCATION_INFORMATION) == 8);

struct FILE_END_OF_FILE_INFORMATION {
    int64_t EndOfFile;
};
static_assert(sizeof(FILE_END_OF_FILE_INFORMATION) == 8);

struct FILE_STREAM_INFORMATION {
    uint32_t NextEntryOffset;
    uint32_t StreamNameLength;
    int64_t StreamSize;
    int64_t StreamAllocationSize;
    char16_t StreamName[1]; // ":name:$DATA"
};
static_assert(sizeof(FILE_STREAM_INFORMATION) == 32);
static_assert(offsetof(FILE_STREAM_INFORMATION, StreamSize) == 8);
static_assert(offsetof(FILE_STREAM_INFORMATION, StreamName) == 24);

struct FILE_COMPRESSION_INFORMATION {
    int64_t CompressedFileSize;
    uint16_t CompressionFormat; // COMPRESSION_FORMAT_NONE
    uint8_t CompressionUnitShift;
    uint8_t ChunkShift;
    uint8_t ClusterShift;
    uint8_t Reserved[3];
};
static_assert(sizeof(FILE_COMPRESSION_INFORMATION) == 16);
static_assert(offsetof(FILE_COMPRESSION_INFORMATION, ClusterShift) == 12);

struct FILE_NETWORK_OPEN_INFORMATION {
    int64_t CreationTime;
    int64_t LastAccessTime;
    int64_t LastWriteTime;
    int64_t ChangeTime;
    int64_t AllocationSize;
    int64_t EndOfFile;
    uint32_t FileAttributes;
};
static_assert(sizeof(FILE_NETWORK_OPEN_INFORMATION) == 56);
static_assert(offsetof(FILE_NETWORK_OPEN_INFORMATION, FileAttributes) == 48);

struct FILE_ATTRIBUTE_TAG_INFORMATION {
    uint32_t FileAttributes;
    uint32_t ReparseTag;
};
static_assert(sizeof(FILE_ATTRIBUTE_TAG_INFORMATION) == 8);

struct FILE_ID_INFORMATION {
    uint64_t VolumeSerialNumber;
    uint8_t FileId[16];
};
static_assert(sizeof(FILE_ID_INFORMATION) == 24);
static_assert(offsetof(FILE_ID_INFORMATION, FileId) == 8);

struct FILE_STAT_INFORMATION {
    int64_t FileId;
    int64_t CreationTime;
    int64_t LastAccessTime;
    int64_t LastWriteTime;
    int64_t ChangeTime;
    int64_t AllocationSize;
    int64_t EndOfFile;
    uint32_t FileAttributes;
    uint32_t ReparseTag;
    uint32_t NumberOfLinks;
    uint32_t EffectiveAccess;
};
static_assert(sizeof(FILE_STAT_INFORMATION) == 72);
static_assert(offsetof(FILE_STAT_INFORMATION, EndOfFile) == 48);
static_assert(offsetof(FILE_STAT_INFORMATION, FileAttributes) == 56);
static_assert(offsetof(FILE_STAT_INFORMATION, EffectiveAccess) == 68);

struct FILE_STAT_LX_INFORMATION {
    FILE_STAT_INFORMATION Stat;
    uint32_t LxFlags; // which of the next fields count
    uint32_t LxUid;
    uint32_t LxGid;
    uint32_t LxMode; // st_mode
    uint32_t LxDeviceIdMajor;
    uint32_t LxDeviceIdMinor;
};
static_assert(sizeof(FILE_STAT_LX_INFORMATION) == 96);
static_assert(offsetof(FILE_STAT_LX_INFORMATION, LxFlags) == 72);
static_assert(offsetof(FILE_STAT_LX_INFORMATION, LxDeviceIdMinor) == 92);

inline constexpr uint32_t LX_FILE_METADATA_HAS_UID = 0x1;
inline constexpr uint32_t LX_FILE_METADATA_HAS_GID = 0x2;
inline constexpr uint32_t LX_FILE_METADATA_HAS_MODE = 0x4;
inline constexpr uint32_t LX_FILE_METADATA_HAS_DEVICE_ID = 0x8;
inline constexpr uint32_t LX_FILE_CASE_SENSITIVE_DIR = 0x10;

struct FILE_CASE_SENSITIVE_INFORMATION {
    uint32_t Flags;
};
static_assert(sizeof(FILE_CASE_SENSITIVE_INFORMATION) == 4);
inline constexpr uint32_t FILE_CS_FLAG_CASE_SENSITIVE_DIR = 0x1;

struct FILE_FS_VOLUME_INFORMATION {
    int64_t VolumeCreationTime;
    uint32_t VolumeSerialNumber;
    uint32_t VolumeLabelLength;
    uint8_t SupportsObjects;
    char16_t VolumeLabel[1];
};
static_assert(sizeof(FILE_FS_VOLUME_INFORMATION) == 24);
static_assert(offsetof(FILE_FS_VOLUME_INFORMATION, SupportsObjects) == 16);
static_assert(offsetof(FILE_FS_VOLUME_INFORMATION, VolumeLabel) == 18);

struct FILE_FS_SIZE_INFORMATION {
    int64_t TotalAllocationUnits;
    int64_t AvailableAllocationUnits;
    uint32_t SectorsPerAllocationUnit;
    uint32_t BytesPerSector;
};
static_assert(sizeof(FILE_FS_SIZE_INFORMATION) == 24);

struct FILE_FS_DEVICE_INFORMATION {
    uint32_t DeviceType;
    uint32_t Characteristics;
};
static_assert(sizeof(FILE_FS_DEVICE_INFORMATION) == 8);

struct FILE_FS_ATTRIBUTE_INFORMATION {
    uint32_t FileSystemAttributes;
    int32_t MaximumComponentNameLength; // in units
    uint32_t FileSystemNameLength;
    char16_t FileSystemName[1];
};
static_assert(sizeof(FILE_FS_ATTRIBUTE_INFORMATION) == 16);
static_assert(offsetof(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemName) == 12);

struct FILE_FS_FULL_SIZE_INFORMATION {
    int64_t TotalAllocationUnits;
    int64_t CallerAvailableAllocationUnits;
    int64_t ActualAvailableAllocationUnits;
    uint32_t SectorsPerAllocationUnit;
    uint32_t BytesPerSector;
};
static_assert(sizeof(FILE_FS_FULL_SIZE_INFORMATION) == 32);

struct FILE_FS_SECTOR_SIZE_INFORMATION {
    uint32_t LogicalBytesPerSector;
    uint32_t PhysicalBytesPerSectorForAtomicity;
    uint32_t PhysicalBytesPerSectorForPerformance;
    uint32_t FileSystemEffectivePhysicalBytesPerSectorForAtomicity;
    uint32_t Flags;
    uint32_t ByteOffsetForSectorAlignment;
    uint32_t ByteOffsetForPartitionAlignment;
};
static_assert(sizeof(FILE_FS_SECTOR_SIZE_INFORMATION) == 28);

// FileSystemAttributes (MS-FSCC 2.5.1).
inline constexpr uint32_t FILE_CASE_SENSITIVE_SEARCH = 0x1;
inline constexpr uint32_t FILE_CASE_PRESERVED_NAMES = 0x2;
inline constexpr uint32_t FILE_UNICODE_ON_DISK = 0x4;
inline constexpr uint32_t FILE_SUPPORTS_SPARSE_FILES = 0x40;
inline constexpr uint32_t FILE_NAMED_STREAMS = 0x40000;
inline constexpr uint32_t FILE_READ_ONLY_VOLUME = 0x80000;

// DeviceType and Characteristics (MS-FSCC 2.5.10).
inline constexpr uint32_t FILE_DEVICE_CD_ROM = 0x2;
inline constexpr uint32_t FILE_DEVICE_DISK = 0x7;
inline constexpr uint32_t FILE_REMOVABLE_MEDIA = 0x1;
inline constexpr uint32_t FILE_READ_ONLY_DEVICE = 0x2;
inline constexpr uint32_t FILE_REMOTE_DEVICE = 0x10;
inline constexpr uint32_t FILE_DEVICE_IS_MOUNTED = 0x20;

// One change of a directory (MS-FSCC 2.7.1).
struct FILE_NOTIFY_INFORMATION {
    uint32_t NextEntryOffset;
    uint32_t Action;
    uint32_t FileNameLength;
    char16_t FileName[1]; // relative to the watched directory
};
static_assert(sizeof(FILE_NOTIFY_INFORMATION) == 16);
static_assert(offsetof(FILE_NOTIFY_INFORMATION, FileName) == 12);

inline constexpr uint32_t FILE_ACTION_ADDED = 1;
inline constexpr uint32_t FILE_ACTION_REMOVED = 2;
inline constexpr uint32_t FILE_ACTION_MODIFIED = 3;
inline constexpr uint32_t FILE_ACTION_RENAMED_OLD_NAME = 4;
inline constexpr uint32_t FILE_ACTION_RENAMED_NEW_NAME = 5;

// Device control (MS-FSCC 2.3).
inline constexpr uint32_t FSCTL_GET_COMPRESSION = 0x9003C;
inline constexpr uint32_t FSCTL_SET_COMPRESSION = 0x9C040;
inline constexpr uint32_t FSCTL_GET_REPARSE_POINT = 0x900A8;
inline constexpr uint32_t FSCTL_SET_REPARSE_POINT = 0x900A4;
inline constexpr uint32_t FSCTL_SET_SPARSE = 0x900C4;
inline constexpr uint32_t FSCTL_SET_ZERO_DATA = 0x980C8;
inline constexpr uint32_t FSCTL_QUERY_ALLOCATED_RANGES = 0x940CF;

// A private one, on any handle of a share: what its host offers. Hosts without it refuse the code.
inline constexpr uint32_t FSCTL_FODR_QUERY_HOST = 0x923C0;

struct FODR_HOST_INFORMATION {
    uint32_t Version;
    uint32_t Features;
};
static_assert(sizeof(FODR_HOST_INFORMATION) == 8);

inline constexpr uint32_t FODR_HOST_VERSION = 1;
inline constexpr uint32_t FODR_HOST_FILE_IDS = 0x1;       // FODR_LISTED_FILE; classes 59, 68 and 70
inline constexpr uint32_t FODR_HOST_POSIX_NAMES = 0x2;    // classes 64 and 65 act at once if asked to
inline constexpr uint32_t FODR_HOST_NOTICES_FIRST = 0x4;  // no completion overtakes the notice of a change
inline constexpr uint32_t FODR_HOST_CASE_SENSITIVE = 0x8; // this share is
inline constexpr uint32_t FODR_HOST_MODES = 0x10;         // FODR_CREATE_WITH_MODE, FSCTL_FODR_SET_MODE
inline constexpr uint32_t FODR_HOST_LX_FILES = 0x20;      // sets IO_REPARSE_TAG_LX_*; links by class 11
// FODR_LOCKS_BASE acts as described there; FSCTL_FODR_QUERY_LOCK.
inline constexpr uint32_t FODR_HOST_ADVISORY_LOCKS = 0x40;

inline constexpr uint32_t FODR_HOST_EXCHANGE = 0x100; // FODR_RENAME_EXCHANGE
inline constexpr uint32_t FODR_HOST_RANGES = 0x200;   // FSCTL_FODR_ALLOCATE, FSCTL_FODR_COPY_RANGE

// An allocation size with this bit is none: its low 12 bits are the mode that a new file or directory gets,
// whatever the host's umask.
inline constexpr uint64_t FODR_CREATE_WITH_MODE = 1ull << 63;
inline constexpr uint32_t FODR_MODE_BITS = 07777;

// Sets mode, owner and group of what is open with FILE_WRITE_ATTRIBUTES.
inline constexpr uint32_t FSCTL_FODR_SET_MODE = 0x923C4;

struct FODR_MODE_CHANGE {
    uint32_t Fields; // FODR_SET_*: which of the others count
    uint32_t Mode;   // FODR_MODE_BITS
    uint32_t Owner;
    uint32_t Group;
};
static_assert(sizeof(FODR_MODE_CHANGE) == 16);

inline constexpr uint32_t FODR_SET_MODE = 0x1;
inline constexpr uint32_t FODR_SET_OWNER = 0x2;
inline constexpr uint32_t FODR_SET_GROUP = 0x4;

// As fallocate(2), of what is open with FILE_WRITE_DATA.
inline constexpr uint32_t FSCTL_FODR_ALLOCATE = 0x9A3E0;

struct FODR_ALLOCATION {
    uint32_t Mode; // FODR_KEEP_SIZE, FODR_ZERO_RANGE
    uint32_t Reserved;
    int64_t Offset;
    int64_t Length;
};
static_assert(sizeof(FODR_ALLOCATION) == 24);

inline constexpr uint32_t FODR_KEEP_SIZE = 0x1;
inline constexpr uint32_t FODR_ZERO_RANGE = 0x10;

// As copy_file_range(2), into what is open with FILE_WRITE_DATA, from a file of the same share that is open
// with FILE_READ_DATA. Answers how many bytes were copied, in eight bytes.
inline constexpr uint32_t FSCTL_FODR_COPY_RANGE = 0x9A3E4;

struct FODR_RANGE_COPY {
    uint64_t Source; // a handle
    int64_t SourceOffset;
    int64_t TargetOffset;
    int64_t Length;
};
static_assert(sizeof(FODR_RANGE_COPY) == 32);

// Advisory locks are NT locks where no data can be: byte n is locked at FODR_LOCKS_BASE + n, and a range that
// ends with the last of these bytes has no end. With FODR_HOST_ADVISORY_LOCKS they act as fcntl and flock do:
// what the handle holds of the range is replaced, and unlocked in parts.
inline constexpr uint64_t FODR_LOCKS_BASE = 1ull << 62;
inline constexpr uint64_t FODR_LOCKS_SPAN = 1ull << 61;
inline constexpr uint64_t FODR_LOCK_WHOLE = FODR_LOCKS_BASE + FODR_LOCKS_SPAN; // one byte: the lock of flock
// Its unlock ends what waits for an advisory lock on the handle, with STATUS_CANCELLED.
inline constexpr uint64_t FODR_LOCK_WAITS = FODR_LOCK_WHOLE + 1;

// Asks for the lock that is in the way of the one that the input describes. Offsets are real.
inline constexpr uint32_t FSCTL_FODR_QUERY_LOCK = 0x923D0;

struct FODR_LOCK {
    uint64_t Offset;
    uint64_t Length;
    uint32_t Type; // FODR_LOCK_*; in the answer 0 if there is none
    uint32_t Reserved;
};
static_assert(sizeof(FODR_LOCK) == 24);

inline constexpr uint32_t FODR_LOCK_SHARED = 1;
inline constexpr uint32_t FODR_LOCK_EXCLUSIVE = 2;

inline constexpr uint16_t COMPRESSION_FORMAT_NONE = 0;
inline constexpr uint16_t COMPRESSION_FORMAT_DEFAULT = 1;
// MS-FSCC 2.1.2.1. Those that begin with LX are POSIX files: a link has a version (2) and its target as
// UTF-8, the others nothing.
inline constexpr uint32_t IO_REPARSE_TAG_SYMLINK = 0xA000000C;
inline constexpr uint32_t IO_REPARSE_TAG_LX_SYMLINK = 0xA000001D;
inline constexpr uint32_t IO_REPARSE_TAG_AF_UNIX = 0x80000023;
inline constexpr uint32_t IO_REPARSE_TAG_LX_FIFO = 0x80000024;

struct REPARSE_DATA_HEAD {
    uint32_t ReparseTag;
    uint16_t ReparseDataLength; // what follows
    uint16_t Reserved;
};
static_assert(sizeof(REPARSE_DATA_HEAD) == 8);

inline constexpr uint32_t LX_SYMLINK_VERSION = 2;

struct FILE_ALLOCATED_RANGE_BUFFER {
    int64_t FileOffset;
    int64_t Length;
};
static_assert(sizeof(FILE_ALLOCATED_RANGE_BUFFER) == 16);

struct FILE_ZERO_DATA_INFORMATION {
    int64_t FileOffset;
    int64_t BeyondFinalZero;
};
static_assert(sizeof(FILE_ZERO_DATA_INFORMATION) == 16);

// MS-FSCC 2.1.2.4, up to its path buffer; the offsets count from there.
struct SYMBOLIC_LINK_REPARSE_DATA {
    uint32_t ReparseTag;
    uint16_t ReparseDataLength; // of everything behind Reserved
    uint16_t Reserved;
    uint16_t SubstituteNameOffset;
    uint16_t SubstituteNameLength;
    uint16_t PrintNameOffset;
    uint16_t PrintNameLength;
    uint32_t Flags; // 1: the target is relative
};
static_assert(sizeof(SYMBOLIC_LINK_REPARSE_DATA) == 20);

} // namespace fodr::nt
