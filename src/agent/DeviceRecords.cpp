#include "agent/DeviceRecords.h"

#include "rdpdr/wire/RdpdrRecords.h"

#include <algorithm>

namespace fodr::agent {
namespace {

// A text that ends at its first zero, or with the bytes.
std::string TextOf(ByteSpan bytes)
{
    return {bytes.begin(), std::find(bytes.begin(), bytes.end(), uint8_t{0})};
}

} // namespace

AnnounceReader::AnnounceReader(ByteSpan packet)
{
    malformed = packet.size() < kWireEnd<DR_CORE_DEVICELIST_ANNOUNCE_REQ>;
    if (malformed)
        return;
    left = LoadRecord<DR_CORE_DEVICELIST_ANNOUNCE_REQ>(&packet[kHeaderEnd]).DeviceCount;
    rest = packet.subspan(kWireEnd<DR_CORE_DEVICELIST_ANNOUNCE_REQ>);
}

bool AnnounceReader::Take(size_t count, ByteSpan *taken)
{
    malformed = count > rest.size();
    if (malformed)
        return false;
    *taken = rest.first(count);
    rest = rest.subspan(count);
    return true;
}

bool AnnounceReader::ReadOne(RemoteDevice *device, uint32_t *type)
{
    ByteSpan bytes;
    if (!Take(kWireSize<DEVICE_ANNOUNCE>, &bytes))
        return false;
    const auto record = LoadRecord<DEVICE_ANNOUNCE>(bytes.data());
    *type = record.DeviceType;
    if (!Take(record.DeviceDataLength, &bytes))
        return false;
    *device = {.id = record.DeviceId & kDeviceNumberMask,
               .permission = static_cast<uint8_t>(record.DeviceId >> kDevicePermissionShift),
               .name = TextOf(bytes),
               .dosName = TextOf(record.PreferredDosName),
               .path = {}};
    if (device->name.empty())
        device->name = device->dosName;
    // Behind the last device there may be the extension.
    if (left != 0 || rest.empty())
        return true;
    if (!Take(kWireSize<FODR_DRIVE_LETTER_MAPPING>, &bytes))
        return false;
    const auto extension = LoadRecord<FODR_DRIVE_LETTER_MAPPING>(bytes.data());
    if (!Take(extension.Length, &bytes))
        return false;
    if (extension.Type == kDriveLetterMappingExtension)
        device->path = TextOf(bytes);
    return true;
}

bool AnnounceReader::Next(RemoteDevice *device)
{
    while (left != 0 && !malformed) {
        --left;
        uint32_t type = 0;
        if (ReadOne(device, &type) && type == RDPDR_DTYP_FILESYSTEM)
            return true;
    }
    return false;
}

RemoveReader::RemoveReader(ByteSpan packet)
{
    malformed = packet.size() < kHeaderEnd + 4;
    if (malformed)
        return;
    left = LoadLittle<uint32_t>(&packet[kHeaderEnd]);
    rest = packet.subspan(kHeaderEnd + 4);
}

bool RemoveReader::Next(uint32_t *deviceId)
{
    malformed = malformed || (left != 0 && rest.size() < 4);
    if (left == 0 || malformed)
        return false;
    --left;
    *deviceId = LoadLittle<uint32_t>(rest.data());
    rest = rest.subspan(4);
    return true;
}

} // namespace fodr::agent
