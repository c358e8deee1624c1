// Builds I/O completions (MS-RDPEFS 2.2.1.5). Any thread.
#pragma once

#include "rdpdr/wire/RdpdrRecords.h"
#include "rdpdr/wire/RdpdrStream.h"

#include <cstddef>
#include <cstdint>

namespace fodr {

// From the DeviceId field of a completion, which is what the builders hand out, to its FileId or Length, and
// to the data behind that.
inline constexpr size_t kBodyFromDeviceId = kCompletionBody - kHeaderEnd;
inline constexpr size_t kDataFromDeviceId = kCompletionData - kHeaderEnd;

// A completion of 20 + `bodySize` bytes, at least 21, zero behind IoStatus. `*deviceIdField` (may be null)
// receives the address of its DeviceId. Null when there is no memory or the packet would be above INT32_MAX.
[[nodiscard]] RdpdrStreamPtr BuildIoCompletion(uint32_t deviceId, uint32_t completionId, int32_t ioStatus,
                                               size_t bodySize, uint8_t **deviceIdField);

// A completion whose Length is `length`, with that many bytes of `data` behind it. Null as above.
[[nodiscard]] RdpdrStreamPtr BuildDataCompletion(uint32_t deviceId, uint32_t completionId, int32_t ioStatus,
                                                 const void *data, size_t length);

} // namespace fodr
