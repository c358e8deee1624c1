// Every record of the drive-redirection protocol. Offsets count from the start of the packet, as in MS-RDPEFS
// 2.2; records of a packet begin behind its RDPDR_HEADER. docs/wire.md shows each one as bytes.
//
//     auto request = ReadRecord<DR_DEVICE_IOREQUEST>(stream);      // cursor at 4, then at 56
//     auto create = request.Body<DR_CREATE_REQ>();
//     StorePacket(DR_DEVICELIST_REMOVE{.DeviceId = id}, bytes);    // header included
#pragma once

#include "rdpdr/wire/RdpdrConstants.h"
#include "rdpdr/wire/WireLayout.h"

#include <array>
#include <cstdint>

namespace fodr {

// What every packet begins with.
struct RDPDR_HEADER {
    uint16_t Component = RDPDR_CTYP_CORE;
    uint16_t PacketId = 0;

    using Layout =
        wire::Layout<0, 4, wire::At<0, &RDPDR_HEADER::Component>, wire::At<2, &RDPDR_HEADER::PacketId>>;
};

// The whole packet of a record that begins behind the header: kWireEnd<Packet> bytes.
template <wire::Record Packet> void StorePacket(const Packet &packet, uint8_t *bytes)
{
    static_assert(Packet::Layout::kBegin == kHeaderEnd);
    StoreRecord(Packet::kHeader, bytes);
    StoreRecord(packet, bytes + kHeaderEnd);
}

// Records of the handshake, the devices and the private component (MS-RDPEFS 2.2.2 and 2.2.3.1). docs/wire.md
// shows each one as bytes.
// ---- handshake -------------------------------------------------------------------------------------------

struct DR_CORE_SERVER_ANNOUNCE_REQ {
    static constexpr RDPDR_HEADER kHeader{RDPDR_CTYP_CORE, PAKID_CORE_SERVER_ANNOUNCE};
    uint16_t VersionMajor = RDPDR_MAJOR_VERSION;
    uint16_t VersionMinor = RDPDR_MINOR_VERSION;
    uint32_t ClientId = 0;

    using R = DR_CORE_SERVER_ANNOUNCE_REQ;
    using Layout = wire::Layout<4, 12, wire::At<4, &R::VersionMajor>, wire::At<6, &R::VersionMinor>,
                                wire::At<8, &R::ClientId>>;
};

struct DR_CORE_CLIENT_ANNOUNCE_RSP {
    static constexpr RDPDR_HEADER kHeader{RDPDR_CTYP_CORE, PAKID_CORE_CLIENTID_CONFIRM};
    uint16_t VersionMajor = RDPDR_MAJOR_VERSION;
    uint16_t VersionMinor = RDPDR_MINOR_VERSION;
    uint32_t ClientId = 0;

    using R = DR_CORE_CLIENT_ANNOUNCE_RSP;
    using Layout = wire::Layout<4, 12, wire::At<4, &R::VersionMajor>, wire::At<6, &R::VersionMinor>,
                                wire::At<8, &R::ClientId>>;
};

// ComputerName follows: UTF-16 with its terminator, ComputerNameLen bytes.
struct DR_CORE_CLIENT_NAME_REQ {
    static constexpr RDPDR_HEADER kHeader{RDPDR_CTYP_CORE, PAKID_CORE_CLIENT_NAME};
    uint32_t UnicodeFlag = 1;
    uint32_t CodePage = 0;
    uint32_t ComputerNameLen = 0;

    using R = DR_CORE_CLIENT_NAME_REQ;
    using Layout = wire::Layout<4, 16, wire::At<4, &R::UnicodeFlag>, wire::At<8, &R::CodePage>,
                                wire::At<12, &R::ComputerNameLen>>;
};

// Begins each capability set; CapabilityLength includes it.
struct CAPABILITY_HEADER {
    uint16_t CapabilityType = 0;
    uint16_t CapabilityLength = 8;
    uint32_t Version = 1;

    using R = CAPABILITY_HEADER;
    using Layout = wire::Layout<0, 8, wire::At<0, &R::CapabilityType>, wire::At<2, &R::CapabilityLength>,
                                wire::At<4, &R::Version>>;
};

struct GENERAL_CAPS_SET {
    CAPABILITY_HEADER Header{CAP_GENERAL_TYPE, 44, 2};
    uint32_t osType = 2;
    uint32_t osVersion = 0x00060001;
    uint16_t protocolMajorVersion = RDPDR_MAJOR_VERSION;
    uint16_t protocolMinorVersion = RDPDR_MINOR_VERSION;
    uint32_t ioCode1 = 0x0000FFFF;
    uint32_t ioCode2 = 0;
    uint32_t extendedPDU = 7;
    uint32_t extraFlags1 = 1;
    uint32_t extraFlags2 = 0;
    uint32_t SpecialTypeDeviceCap = 0;

    using R = GENERAL_CAPS_SET;
    using Layout =
        wire::Layout<8, 52, wire::At<8, &R::Header>, wire::At<16, &R::osType>, wire::At<20, &R::osVersion>,
                     wire::At<24, &R::protocolMajorVersion>, wire::At<26, &R::protocolMinorVersion>,
                     wire::At<28, &R::ioCode1>, wire::At<32, &R::ioCode2>, wire::At<36, &R::extendedPDU>,
                     wire::At<40, &R::extraFlags1>, wire::At<44, &R::extraFlags2>,
                     wire::At<48, &R::SpecialTypeDeviceCap>>;
};

// As this client sends it, always. The sets of devices that are never announced are declared all the same.
struct DR_CORE_CAPABILITY_RSP {
    static constexpr RDPDR_HEADER kHeader{RDPDR_CTYP_CORE, PAKID_CORE_CLIENT_CAPABILITY};
    uint16_t numCapabilities = 5;
    uint16_t Padding = 0;
    GENERAL_CAPS_SET General;
    CAPABILITY_HEADER Printer{CAP_PRINTER_TYPE, 8, 1};
    CAPABILITY_HEADER Port{CAP_PORT_TYPE, 8, 1};
    CAPABILITY_HEADER Drive{CAP_DRIVE_TYPE, 8, 2};
    CAPABILITY_HEADER SmartCard{CAP_SMARTCARD_TYPE, 8, 1};

    using R = DR_CORE_CAPABILITY_RSP;
    using Layout = wire::Layout<4, 84, wire::At<4, &R::numCapabilities>, wire::At<6, &R::Padding>,
                                wire::At<8, &R::General>, wire::At<52, &R::Printer>, wire::At<60, &R::Port>,
                                wire::At<68, &R::Drive>, wire::At<76, &R::SmartCard>>;
};

// The agent's; its sets follow and are not read.
struct DR_CORE_CAPABILITY_REQ {
    static constexpr RDPDR_HEADER kHeader{RDPDR_CTYP_CORE, PAKID_CORE_SERVER_CAPABILITY};
    uint16_t numCapabilities = 0;
    uint16_t Padding = 0;

    using R = DR_CORE_CAPABILITY_REQ;
    using Layout = wire::Layout<4, 8, wire::At<4, &R::numCapabilities>, wire::At<6, &R::Padding>>;
};

// Private. Both ways.
struct FODR_VERSION_EXCHANGE {
    static constexpr RDPDR_HEADER kHeader{RDPDR_CTYP_PRIVATE, PAKID_PRIVATE_VERSION_EXCHANGE};
    uint16_t Version = FODR_CLIENT_VERSION;
    uint16_t Capabilities = FODR_CLIENT_CAPABILITIES;

    using R = FODR_VERSION_EXCHANGE;
    using Layout = wire::Layout<4, 8, wire::At<4, &R::Version>, wire::At<6, &R::Capabilities>>;
};

// Private. The policy block follows.
struct FODR_POLICY {
    static constexpr RDPDR_HEADER kHeader{RDPDR_CTYP_PRIVATE, PAKID_PRIVATE_POLICY};
    uint32_t PolicyLength = 0;

    using Layout = wire::Layout<4, 8, wire::At<4, &FODR_POLICY::PolicyLength>>;
};

// ---- devices ---------------------------------------------------------------------------------------------

// One DEVICE_ANNOUNCE follows.
struct DR_CORE_DEVICELIST_ANNOUNCE_REQ {
    static constexpr RDPDR_HEADER kHeader{RDPDR_CTYP_CORE, PAKID_CORE_DEVICELIST_ANNOUNCE};
    uint32_t DeviceCount = 1;

    using Layout = wire::Layout<4, 8, wire::At<4, &DR_CORE_DEVICELIST_ANNOUNCE_REQ::DeviceCount>>;
};

// DeviceDataLength bytes of DeviceData follow: the friendly name with its zero. Bits 24 to 31 of DeviceId
// carry the share's permission, here alone.
struct DEVICE_ANNOUNCE {
    uint32_t DeviceType = RDPDR_DTYP_FILESYSTEM;
    uint32_t DeviceId = 0;
    std::array<uint8_t, 8> PreferredDosName{};
    uint32_t DeviceDataLength = 0;

    using R = DEVICE_ANNOUNCE;
    using Layout = wire::Layout<8, 28, wire::At<8, &R::DeviceType>, wire::At<12, &R::DeviceId>,
                                wire::At<16, &R::PreferredDosName>, wire::At<24, &R::DeviceDataLength>>;
};

// Private. Behind the DeviceData, counted by no length; the share path with its zero follows.
struct FODR_DRIVE_LETTER_MAPPING {
    uint8_t Type = kDriveLetterMappingExtension;
    uint32_t Length = 0;

    using R = FODR_DRIVE_LETTER_MAPPING;
    using Layout = wire::Layout<0, 5, wire::At<0, &R::Type>, wire::At<1, &R::Length>>;
};

struct DR_DEVICELIST_REMOVE {
    static constexpr RDPDR_HEADER kHeader{RDPDR_CTYP_CORE, PAKID_CORE_DEVICELIST_REMOVE};
    uint32_t DeviceCount = 1;
    uint32_t DeviceId = 0;

    using R = DR_DEVICELIST_REMOVE;
    using Layout = wire::Layout<4, 12, wire::At<4, &R::DeviceCount>, wire::At<8, &R::DeviceId>>;
};

struct DR_CORE_DEVICE_ANNOUNCE_RSP {
    static constexpr RDPDR_HEADER kHeader{RDPDR_CTYP_CORE, PAKID_CORE_DEVICE_REPLY};
    uint32_t DeviceId = 0;
    uint32_t ResultCode = 0;

    using R = DR_CORE_DEVICE_ANNOUNCE_RSP;
    using Layout = wire::Layout<4, 12, wire::At<4, &R::DeviceId>, wire::At<8, &R::ResultCode>>;
};

// Records of I/O requests and completions (MS-RDPEFS 2.2.1.4, 2.2.1.5 and 2.2.3).
// docs/wire.md shows each one as bytes.
// The fixed part of a request: all of a packet's bytes from 4 to 55. Parameters is the body of the major
// function, without what follows at 56.
struct DR_DEVICE_IOREQUEST {
    static constexpr RDPDR_HEADER kHeader{RDPDR_CTYP_CORE, PAKID_CORE_DEVICE_IOREQUEST};
    uint32_t DeviceId = 0;
    uint32_t FileId = 0;
    uint32_t CompletionId = 0;
    uint32_t MajorFunction = 0;
    uint32_t MinorFunction = 0;
    std::array<uint8_t, 32> Parameters{};

    template <wire::Record Request> Request Body() const
    {
        static_assert(Request::Layout::kBegin == kRequestBody && Request::Layout::kEnd <= kRequestPayload);
        return LoadRecord<Request>(Parameters.data());
    }
    template <wire::Record Request> void SetBody(const Request &body)
    {
        static_assert(Request::Layout::kBegin == kRequestBody && Request::Layout::kEnd <= kRequestPayload);
        StoreRecord(body, Parameters.data());
    }

    using R = DR_DEVICE_IOREQUEST;
    using Layout = wire::Layout<4, 56, wire::At<4, &R::DeviceId>, wire::At<8, &R::FileId>,
                                wire::At<12, &R::CompletionId>, wire::At<16, &R::MajorFunction>,
                                wire::At<20, &R::MinorFunction>, wire::At<24, &R::Parameters>>;
};

// ---- bodies ----------------------------------------------------------------------------------------------

// PathLength bytes of UTF-16 follow.
struct DR_CREATE_REQ {
    uint32_t DesiredAccess = 0;
    uint64_t AllocationSize = 0;
    uint32_t FileAttributes = 0;
    uint32_t SharedAccess = 0;
    uint32_t CreateDisposition = 0;
    uint32_t CreateOptions = 0;
    uint32_t PathLength = 0;

    using R = DR_CREATE_REQ;
    using Layout = wire::Layout<24, 56, wire::At<24, &R::DesiredAccess>, wire::At<28, &R::AllocationSize>,
                                wire::At<36, &R::FileAttributes>, wire::At<40, &R::SharedAccess>,
                                wire::At<44, &R::CreateDisposition>, wire::At<48, &R::CreateOptions>,
                                wire::At<52, &R::PathLength>>;
};

// Also the body of a write, whose data follows.
struct DR_READ_REQ {
    uint32_t Length = 0;
    uint64_t Offset = 0;

    using R = DR_READ_REQ;
    using Layout =
        wire::Layout<24, 56, wire::At<24, &R::Length>, wire::At<28, &R::Offset>, wire::Unused<36, 20>>;
};
using DR_WRITE_REQ = DR_READ_REQ;

// Of a file and of a volume alike. The standard's Length is not read.
struct DR_DRIVE_QUERY_INFORMATION_REQ {
    uint32_t FsInformationClass = 0;

    using R = DR_DRIVE_QUERY_INFORMATION_REQ;
    using Layout = wire::Layout<24, 56, wire::At<24, &R::FsInformationClass>, wire::Unused<28, 28>>;
};
using DR_DRIVE_QUERY_VOLUME_INFORMATION_REQ = DR_DRIVE_QUERY_INFORMATION_REQ;

// Of a file and of a volume alike. Length bytes of SetBuffer follow.
struct DR_DRIVE_SET_INFORMATION_REQ {
    uint32_t FsInformationClass = 0;
    uint32_t Length = 0;

    using R = DR_DRIVE_SET_INFORMATION_REQ;
    using Layout = wire::Layout<24, 56, wire::At<24, &R::FsInformationClass>, wire::At<28, &R::Length>,
                                wire::Unused<32, 24>>;
};
using DR_DRIVE_SET_VOLUME_INFORMATION_REQ = DR_DRIVE_SET_INFORMATION_REQ;

// PathLength bytes of UTF-16 follow.
struct DR_DRIVE_QUERY_DIRECTORY_REQ {
    uint32_t FsInformationClass = 0;
    uint8_t InitialQuery = 0;
    uint32_t PathLength = 0;

    using R = DR_DRIVE_QUERY_DIRECTORY_REQ;
    using Layout = wire::Layout<24, 56, wire::At<24, &R::FsInformationClass>, wire::At<28, &R::InitialQuery>,
                                wire::At<29, &R::PathLength>, wire::Unused<33, 23>>;
};

struct DR_DRIVE_NOTIFY_CHANGE_DIRECTORY_REQ {
    uint8_t WatchTree = 0;
    uint32_t CompletionFilter = 0;

    using R = DR_DRIVE_NOTIFY_CHANGE_DIRECTORY_REQ;
    using Layout = wire::Layout<24, 56, wire::At<24, &R::WatchTree>, wire::At<25, &R::CompletionFilter>,
                                wire::Unused<29, 27>>;
};

// InputBufferLength bytes follow.
struct DR_CONTROL_REQ {
    uint32_t OutputBufferLength = 0;
    uint32_t InputBufferLength = 0;
    uint32_t IoControlCode = 0;

    using R = DR_CONTROL_REQ;
    using Layout =
        wire::Layout<24, 56, wire::At<24, &R::OutputBufferLength>, wire::At<28, &R::InputBufferLength>,
                     wire::At<32, &R::IoControlCode>, wire::Unused<36, 20>>;
};

// NumLocks records of RDP_LOCK_INFO follow. Bit 0 of F: fail at once instead of waiting.
struct DR_DRIVE_LOCK_REQ {
    uint32_t Operation = 0;
    uint32_t F = 0;
    uint32_t NumLocks = 0;

    using R = DR_DRIVE_LOCK_REQ;
    using Layout = wire::Layout<24, 56, wire::At<24, &R::Operation>, wire::At<28, &R::F>,
                                wire::At<32, &R::NumLocks>, wire::Unused<36, 20>>;
};

struct RDP_LOCK_INFO {
    uint64_t Length = 0;
    uint64_t Offset = 0;

    using R = RDP_LOCK_INFO;
    using Layout = wire::Layout<0, 16, wire::At<0, &R::Length>, wire::At<8, &R::Offset>>;
};

// What a rename carries as its set buffer: FileNameLength bytes of UTF-16 follow at 6.
struct RDP_FILE_RENAME_INFORMATION {
    uint8_t ReplaceIfExists = 0;
    uint8_t RootDirectory = 0; // ignored
    uint32_t FileNameLength = 0;

    using R = RDP_FILE_RENAME_INFORMATION;
    using Layout = wire::Layout<0, 6, wire::At<0, &R::ReplaceIfExists>, wire::At<1, &R::RootDirectory>,
                                wire::At<2, &R::FileNameLength>>;
};

// ---- completions -----------------------------------------------------------------------------------------

struct DR_DEVICE_IOCOMPLETION {
    static constexpr RDPDR_HEADER kHeader{RDPDR_CTYP_CORE, PAKID_CORE_DEVICE_IOCOMPLETION};
    uint32_t DeviceId = 0;
    uint32_t CompletionId = 0;
    uint32_t IoStatus = 0;

    using R = DR_DEVICE_IOCOMPLETION;
    using Layout = wire::Layout<4, 16, wire::At<4, &R::DeviceId>, wire::At<8, &R::CompletionId>,
                                wire::At<12, &R::IoStatus>>;
};

// A pre-read block may follow.
struct DR_CREATE_RSP {
    uint32_t FileId = 0;
    uint8_t Information = 0;

    using R = DR_CREATE_RSP;
    using Layout = wire::Layout<16, 21, wire::At<16, &R::FileId>, wire::At<20, &R::Information>>;
};

// Of every other major: a length, and where there is data, Length bytes of it at 20. A set-information
// response that a pre-read block follows carries the request's FileId in place of Length.
struct DR_LENGTH_RSP {
    uint32_t Length = 0;

    using Layout = wire::Layout<16, 20, wire::At<16, &DR_LENGTH_RSP::Length>>;
};

// Private. At 21 of a completion; TotalLength includes this. EntryCount entries follow.
struct FODR_PRE_READ_BLOCK {
    uint32_t TotalLength = 0;
    uint32_t EntryCount = 0;

    using R = FODR_PRE_READ_BLOCK;
    using Layout = wire::Layout<0, 8, wire::At<0, &R::TotalLength>, wire::At<4, &R::EntryCount>>;
};

// Length bytes of the query's native result follow.
struct FODR_PRE_READ_ENTRY {
    uint32_t MajorFunction = 0;
    uint32_t InformationClass = 0;
    uint32_t Length = 0;

    using R = FODR_PRE_READ_ENTRY;
    using Layout = wire::Layout<0, 12, wire::At<0, &R::MajorFunction>, wire::At<4, &R::InformationClass>,
                                wire::At<8, &R::Length>>;
};

} // namespace fodr
