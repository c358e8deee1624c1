#include "rdpdr/PacketBudget.h"

#include "fileservice/RequestLimits.h"
#include "rdpdr/wire/RdpdrRecords.h"
#include "rdpdr/wire/RdpdrStream.h"

#include <algorithm>

namespace fodr {

namespace {

// The fixed part of a device request; all zeros when it is none. The cursor is left at the start.
DR_DEVICE_IOREQUEST RequestIn(RdpdrStream &packet)
{
    DR_DEVICE_IOREQUEST request;
    packet.SetPosition(0);
    const auto header = ReadRecord<RDPDR_HEADER>(packet);
    if (header.PacketId == PAKID_CORE_DEVICE_IOREQUEST)
        request = ReadRecord<DR_DEVICE_IOREQUEST>(packet);
    packet.SetPosition(0);
    return request;
}

} // namespace

size_t PacketBudget::CostOf(RdpdrStream &packet)
{
    const DR_DEVICE_IOREQUEST request = RequestIn(packet);
    size_t answer = 0;
    if (request.MajorFunction == IRP_MJ_READ)
        answer = std::min(request.Body<DR_READ_REQ>().Length, kLongestRead);
    else if (request.MajorFunction == IRP_MJ_DEVICE_CONTROL)
        answer = std::min(request.Body<DR_CONTROL_REQ>().OutputBufferLength, kLongestControlOutput);
    else if (request.MajorFunction == IRP_MJ_DIRECTORY_CONTROL &&
             request.MinorFunction == IRP_MN_QUERY_DIRECTORY)
        answer = kListingAnswer;
    return kCostOfAny + static_cast<size_t>(packet.Size()) + 2 * answer; // as it is read and as it is sent
}

bool MayWaitForEver(RdpdrStream &packet)
{
    const DR_DEVICE_IOREQUEST request = RequestIn(packet);
    if (request.MajorFunction == IRP_MJ_DIRECTORY_CONTROL)
        return request.MinorFunction == IRP_MN_NOTIFY_CHANGE_DIRECTORY;
    // An unlock of many ranges has a list, and never waits.
    return request.MajorFunction == IRP_MJ_LOCK_CONTROL &&
           request.Body<DR_DRIVE_LOCK_REQ>().Operation != RDP_LOWIO_OP_UNLOCK_MULTIPLE;
}

} // namespace fodr
