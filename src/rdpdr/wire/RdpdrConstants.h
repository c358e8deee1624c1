// Numbers of the drive-redirection protocol (MS-RDPEFS 2.2) and of its private extension.
#pragma once

#include "platform/NtRecords.h"

#include <cstddef>
#include <cstdint>

namespace fodr {

// Component of RDPDR_HEADER.
inline constexpr uint16_t RDPDR_CTYP_CORE = 0x4472;
inline constexpr uint16_t RDPDR_CTYP_PRN = 0x5052; // only the trace knows it
inline constexpr uint16_t RDPDR_CTYP_PRIVATE = 0xFFFE;

// PacketId of RDPDR_HEADER.
inline constexpr uint16_t PAKID_CORE_SERVER_ANNOUNCE = 0x496E;
inline constexpr uint16_t PAKID_CORE_CLIENTID_CONFIRM = 0x4343;
inline constexpr uint16_t PAKID_CORE_CLIENT_NAME = 0x434E;
inline constexpr uint16_t PAKID_CORE_SERVER_CAPABILITY = 0x5350;
inline constexpr uint16_t PAKID_CORE_CLIENT_CAPABILITY = 0x4350;
inline constexpr uint16_t PAKID_CORE_DEVICELIST_ANNOUNCE = 0x4441;
inline constexpr uint16_t PAKID_CORE_DEVICELIST_REMOVE = 0x444D;
inline constexpr uint16_t PAKID_CORE_DEVICE_REPLY = 0x6472;
inline constexpr uint16_t PAKID_CORE_DEVICE_IOREQUEST = 0x4952;
inline constexpr uint16_t PAKID_CORE_DEVICE_IOCOMPLETION = 0x4943;
inline constexpr uint16_t PAKID_CORE_USER_LOGGEDON = 0x554C;
inline constexpr uint16_t PAKID_PRN_CACHE_DATA = 0x5043;
inline constexpr uint16_t PAKID_PRN_USING_XPS = 0x5543;
inline constexpr uint16_t PAKID_PRIVATE_VERSION_EXCHANGE = 1;
inline constexpr uint16_t PAKID_PRIVATE_POLICY = 2;

inline constexpr uint16_t RDPDR_MAJOR_VERSION = 1; // of the standard protocol
inline constexpr uint16_t RDPDR_MINOR_VERSION = 12;

// Private VERSION_EXCHANGE.
inline constexpr uint16_t FODR_CLIENT_VERSION = 6;
inline constexpr uint16_t FODR_CLIENT_CAPABILITIES = 0x000C;
inline constexpr uint16_t FODR_CAP_MULTI_ENTRY_DIRECTORY_QUERY = 0x01; // counts from version 3
inline constexpr uint16_t FODR_CAP_PRE_READ = 0x02;                    // counts from version 4
inline constexpr uint16_t FODR_CAP_DRIVE_LETTER_MAPPING = 0x08;

// Versions of the agent at which behaviour changes.
inline constexpr int32_t FODR_VERSION_UNKNOWN = 0;
inline constexpr int32_t FODR_VERSION_NO_POLICY = 1;
inline constexpr int32_t FODR_VERSION_DIRECTORY_CAPABILITY = 3;
inline constexpr int32_t FODR_VERSION_PRE_READ_CAPABILITY = 4;
inline constexpr int32_t FODR_VERSION_FOLDER_BLOCK_LENGTH = 5;
inline constexpr int32_t FODR_VERSION_TYPE_TAGS = 6;

// Capability sets (MS-RDPEFS 2.2.1.2 and 2.2.2.7).
inline constexpr uint16_t CAP_GENERAL_TYPE = 1;
inline constexpr uint16_t CAP_PRINTER_TYPE = 2;
inline constexpr uint16_t CAP_PORT_TYPE = 3;
inline constexpr uint16_t CAP_DRIVE_TYPE = 4;
inline constexpr uint16_t CAP_SMARTCARD_TYPE = 5;

inline constexpr uint32_t RDPDR_DTYP_FILESYSTEM = 8;
inline constexpr uint32_t kDeviceNumberMask = 0x00FFFFFF; // DeviceId of an announce; above it, the permission
inline constexpr unsigned kDevicePermissionShift = 24;
inline constexpr uint8_t kDriveLetterMappingExtension = 1; // Type

// MajorFunction and MinorFunction of a request.
inline constexpr uint32_t IRP_MJ_CREATE = 0;
inline constexpr uint32_t IRP_MJ_CLOSE = 2;
inline constexpr uint32_t IRP_MJ_READ = 3;
inline constexpr uint32_t IRP_MJ_WRITE = 4;
inline constexpr uint32_t IRP_MJ_QUERY_INFORMATION = 5;
inline constexpr uint32_t IRP_MJ_SET_INFORMATION = 6;
inline constexpr uint32_t IRP_MJ_QUERY_VOLUME_INFORMATION = 10;
inline constexpr uint32_t IRP_MJ_SET_VOLUME_INFORMATION = 11;
inline constexpr uint32_t IRP_MJ_DIRECTORY_CONTROL = 12;
inline constexpr uint32_t IRP_MJ_DEVICE_CONTROL = 14;
inline constexpr uint32_t IRP_MJ_LOCK_CONTROL = 17;
inline constexpr uint32_t IRP_MN_QUERY_DIRECTORY = 1;
inline constexpr uint32_t IRP_MN_NOTIFY_CHANGE_DIRECTORY = 2;

// Operation of DR_DRIVE_LOCK_REQ.
inline constexpr uint32_t RDP_LOWIO_OP_SHAREDLOCK = 2;
inline constexpr uint32_t RDP_LOWIO_OP_EXCLUSIVELOCK = 3;
inline constexpr uint32_t RDP_LOWIO_OP_UNLOCK = 4;
inline constexpr uint32_t RDP_LOWIO_OP_UNLOCK_MULTIPLE = 5;
inline constexpr uint32_t kLockFailImmediately = 0x1; // bit of F

// Offsets from the start of a packet.
inline constexpr size_t kHeaderEnd = 4;       // behind RDPDR_HEADER
inline constexpr size_t kRequestBody = 24;    // the fields of a major function
inline constexpr size_t kRequestPayload = 56; // path, write data, set buffer, control input, lock list
inline constexpr size_t kMinRequestSize = 56;
inline constexpr size_t kCompletionBody = 16; // FileId or Length
inline constexpr size_t kCompletionData = 20; // behind Length
inline constexpr size_t kPreReadBlock = 21;
inline constexpr size_t kMinCompletionSize = 21; // that of a create

// Where the native entries of a listing keep their names (MS-FSCC 2.4).
struct DirectoryEntryShape {
    uint32_t infoClass;
    uint32_t nameLengthOffset; // of FileNameLength
    uint32_t nameOffset;       // of FileName
};

// Null for a class that is none of a listing.
inline const DirectoryEntryShape *FindDirectoryEntryShape(uint32_t infoClass)
{
    using namespace nt;
    static constexpr DirectoryEntryShape kShapes[] = {
        {FileDirectoryInformation, offsetof(FILE_DIRECTORY_INFORMATION, FileNameLength),
         offsetof(FILE_DIRECTORY_INFORMATION, FileName)},
        {FileFullDirectoryInformation, offsetof(FILE_FULL_DIR_INFORMATION, FileNameLength),
         offsetof(FILE_FULL_DIR_INFORMATION, FileName)},
        {FileBothDirectoryInformation, offsetof(FILE_BOTH_DIR_INFORMATION, FileNameLength),
         offsetof(FILE_BOTH_DIR_INFORMATION, FileName)},
        {FileNamesInformation, offsetof(FILE_NAMES_INFORMATION, FileNameLength),
         offsetof(FILE_NAMES_INFORMATION, FileName)},
        {FileIdBothDirectoryInformation, offsetof(FILE_ID_BOTH_DIR_INFORMATION, FileNameLength),
         offsetof(FILE_ID_BOTH_DIR_INFORMATION, FileName)},
        {FileIdFullDirectoryInformation, offsetof(FILE_ID_FULL_DIR_INFORMATION, FileNameLength),
         offsetof(FILE_ID_FULL_DIR_INFORMATION, FileName)},
    };
    for (const DirectoryEntryShape &shape : kShapes) {
        if (shape.infoClass == infoClass)
            return &shape;
    }
    return nullptr;
}

} // namespace fodr
