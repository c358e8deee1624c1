// Every record of the drive-redirection protocol. Offsets count from the start of the packet, as in MS-RDPEFS
// 2.2; records of a packet begin behind its RDPDR_HEADER. docs/wire.md shows each one as bytes.
//
//     auto request = ReadRecord<DR_DEVICE_IOREQUEST>(stream);      // cursor at 4, then at 56
//     auto create = request.Body<DR_CREATE_REQ>();
//     StorePacket(DR_DEVICELIST_REMOVE{.DeviceId = id}, bytes);    // header included
#pragma once

#include "rdpdr/wire/HandshakeRecords.h"
#include "rdpdr/wire/IoRecords.h"
#include "rdpdr/wire/PacketHeader.h"
#include "rdpdr/wire/RdpdrConstants.h"
