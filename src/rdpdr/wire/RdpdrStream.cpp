#include "rdpdr/wire/RdpdrStream.h"

#include "rdpdr/wire/RdpdrRecords.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

namespace fodr {

RdpdrStream::RdpdrStream(void *buffer, int32_t length)
    : base(static_cast<uint8_t *>(buffer)), cursor(base), size(buffer && length > 0 ? length : 0)
{}

RdpdrStream *RdpdrStream::Create(size_t size)
{
    return CreatePartlyZeroed(size, size);
}

RdpdrStream *RdpdrStream::CreatePartlyZeroed(size_t size, size_t zeroedSize)
{
    if (size > static_cast<size_t>(std::numeric_limits<int32_t>::max()))
        return nullptr;
    // One block holds the record and its storage: one allocation a packet.
    void *block =
        zeroedSize >= size ? calloc(1, sizeof(RdpdrStream) + size) : malloc(sizeof(RdpdrStream) + size);
    if (!block)
        return nullptr;
    auto *stream = new (block) RdpdrStream();
    if (size == 0)
        return stream;
    stream->base = static_cast<uint8_t *>(block) + sizeof(RdpdrStream);
    stream->cursor = stream->base;
    stream->size = static_cast<int32_t>(size);
    if (zeroedSize < size)
        memset(stream->base, 0, zeroedSize);
    return stream;
}

void RdpdrStream::Free(RdpdrStream **stream)
{
    if (!stream)
        return;
    free(*stream);
    *stream = nullptr;
}

bool RdpdrStream::Read(void *destination, size_t count)
{
    if (!destination)
        return false;
    size_t present = std::min(count, Remaining());
    if (present > 0)
        memcpy(destination, cursor, present);
    if (count > present)
        memset(static_cast<uint8_t *>(destination) + present, 0, count - present);
    cursor += present;
    return true;
}

bool RdpdrStream::Write(const void *source, size_t count)
{
    if (count == 0)
        return true;
    if (!source || count > Remaining())
        return false;
    memcpy(cursor, source, count);
    cursor += count;
    return true;
}

bool RdpdrStream::SetPosition(size_t offset)
{
    if (offset >= static_cast<size_t>(size))
        return false;
    cursor = base + offset;
    return true;
}

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
