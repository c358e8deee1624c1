#include "rdpdr/wire/CompletionBuilder.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace fodr {

namespace {

// `writtenSize` bytes at the end of the body are the caller's to write; all others are zeroed.
RdpdrStreamPtr Build(uint32_t deviceId, uint32_t completionId, int32_t ioStatus, size_t bodySize,
                     size_t writtenSize)
{
    if (bodySize > std::numeric_limits<int32_t>::max() - kCompletionData)
        return nullptr;
    size_t size = std::max(kCompletionData + bodySize, kMinCompletionSize);
    RdpdrStreamPtr stream(RdpdrStream::CreatePartlyZeroed(size, size - writtenSize));
    if (!stream)
        return nullptr;
    DR_DEVICE_IOCOMPLETION completion{deviceId, completionId, static_cast<uint32_t>(ioStatus)};
    StorePacket(completion, stream->Base());
    return stream;
}

} // namespace

RdpdrStreamPtr BuildIoCompletion(uint32_t deviceId, uint32_t completionId, int32_t ioStatus, size_t bodySize,
                                 uint8_t **deviceIdField)
{
    RdpdrStreamPtr stream = Build(deviceId, completionId, ioStatus, bodySize, 0);
    if (deviceIdField)
        *deviceIdField = stream ? stream->Base() + kHeaderEnd : nullptr;
    return stream;
}

RdpdrStreamPtr BuildDataCompletion(uint32_t deviceId, uint32_t completionId, int32_t ioStatus,
                                   const void *data, size_t length)
{
    RdpdrStreamPtr stream = Build(deviceId, completionId, ioStatus, length, length);
    if (!stream)
        return nullptr;
    StoreRecord(DR_LENGTH_RSP{static_cast<uint32_t>(length)}, stream->Base() + kCompletionBody);
    if (length > 0)
        memcpy(stream->Base() + kCompletionData, data, length);
    return stream;
}

} // namespace fodr
