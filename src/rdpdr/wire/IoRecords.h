// Records of I/O requests and completions (MS-RDPEFS 2.2.1.4, 2.2.1.5 and 2.2.3).
// docs/wire.md shows each one as bytes.
#pragma once

#include "rdpdr/wire/PacketHeader.h"
#include "rdpdr/wire/RdpdrConstants.h"
#include "rdpdr/wire/WireLayout.h"

#include <array>
#include <cstdint>

namespace fodr {

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
