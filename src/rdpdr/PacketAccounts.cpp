#include "rdpdr/PacketAccounts.h"

#include "fileservice/IFileSystem.h"
#include "rdpdr/wire/PacketWords.h"
#include "rdpdr/wire/RdpdrRecords.h"
#include "rdpdr/wire/RdpdrStream.h"
#include "runtime/LogCall.h"

#include <algorithm>
#include <cstring>
#include <new>

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

void DropUnread(RdpdrStreamPtr &stream)
{
    if (static_cast<size_t>(stream->Size()) <= kWaitingPacket)
        return;
    RdpdrStreamPtr shorter(RdpdrStream::Create(kWaitingPacket));
    if (!shorter)
        return;
    memcpy(shorter->Base(), stream->Base(), kWaitingPacket);
    stream = std::move(shorter);
}

void BandwidthCounter::Start(uint32_t) {}

void BandwidthCounter::Stop() {}

void BandwidthCounter::ReceivedBytes(const void *data, size_t size)
{
    Count(data, size);
}

void BandwidthCounter::SentBytes(const void *data, size_t size)
{
    Count(data, size);
}

void BandwidthCounter::Count(const void *data, size_t size)
{
    if (!data)
        return;
    uint32_t kind = PacketKind(data, size);
    OVMutexLock held(lock);
    try {
        Total &total = totals[kind];
        total.bytes += size;
        ++total.packets;
    } catch (const std::bad_alloc &) { // the packet matters, its count doesn't
    }
}

void BandwidthCounter::Log()
{
    OVMutexLock held(lock);
    uint64_t sum = 0;
    for (const auto &[kind, total] : totals)
        sum += total.bytes;
    LOG_INFO("Total data transport: %5.3fMB.\n", static_cast<double>(sum) / 1024 / 1024);
    for (const auto &[kind, total] : totals) {
        uint64_t average = total.packets == 0 ? 0 : total.bytes / total.packets;
        double share = sum == 0 ? 0 : static_cast<double>(total.bytes) / static_cast<double>(sum) * 100;
        LOG_INFO("(%s); %llu bytes over %d packets; Average = %llu bytes per packet (%3.5f%%)\n",
                 PacketKindName(kind).c_str(), static_cast<unsigned long long>(total.bytes),
                 static_cast<int>(total.packets), static_cast<unsigned long long>(average), share);
    }
}

} // namespace fodr
