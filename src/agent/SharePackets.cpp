#include "agent/SharePackets.h"

#include "rdpdr/wire/RdpdrRecords.h"

#include <algorithm>
#include <string_view>

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

namespace {

class BlockWriter {
public:
    std::vector<uint8_t> bytes;

    void Byte(uint8_t value) { bytes.push_back(value); }
    void Zeros(size_t count) { bytes.insert(bytes.end(), count, 0); }
    void Number(uint32_t value)
    {
        Zeros(sizeof(value));
        StoreLittle(bytes.data() + bytes.size() - sizeof(value), value);
    }
    void Counted(std::string_view text)
    {
        Number(static_cast<uint32_t>(text.size()));
        bytes.insert(bytes.end(), text.begin(), text.end());
    }
    // Room for a length that CloseLength fills with the count of what was written since.
    size_t OpenLength()
    {
        Number(0);
        return bytes.size();
    }
    void CloseLength(size_t opened)
    {
        StoreLittle(bytes.data() + opened - sizeof(uint32_t), static_cast<uint32_t>(bytes.size() - opened));
    }
};

} // namespace

std::vector<uint8_t> MakePolicyPacket(const PolicyOptions &options, uint16_t version)
{
    const bool counted = version >= FODR_VERSION_FOLDER_BLOCK_LENGTH;
    BlockWriter block;
    block.Zeros(kWireEnd<FODR_POLICY>);
    const size_t policy = block.bytes.size();
    block.Byte(options.enabled);
    block.Byte(options.sharedByAgent);
    block.Byte(options.defaultPermission);
    block.Zeros(5);
    const size_t folders = counted ? block.OpenLength() : 0;
    for (const PolicyFolder &folder : options.folders) {
        block.Byte(folder.permission);
        block.Zeros(3);
        block.Counted(folder.path);
    }
    if (counted) {
        block.CloseLength(folders);
        const size_t filter = block.OpenLength();
        if (!options.excludeRule.empty() || !options.includeRule.empty()) {
            block.Counted(options.excludeRule);
            block.Counted(options.includeRule);
        }
        block.CloseLength(filter);
    }
    const auto length = static_cast<uint32_t>(block.bytes.size() - policy);
    StorePacket(FODR_POLICY{.PolicyLength = length}, block.bytes.data());
    return std::move(block.bytes);
}

} // namespace fodr::agent
