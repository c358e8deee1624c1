// Records of the handshake, the devices and the private component (MS-RDPEFS 2.2.2 and 2.2.3.1). docs/wire.md
// shows each one as bytes.
#pragma once

#include "rdpdr/wire/PacketHeader.h"
#include "rdpdr/wire/RdpdrConstants.h"
#include "rdpdr/wire/WireLayout.h"

#include <array>
#include <cstdint>

namespace fodr {

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

} // namespace fodr
