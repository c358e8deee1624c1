// Answers ahead of time what the agent is known to ask next: the completions of some requests carry a block
// of query results. Any thread.
#pragma once

#include "rdpdr/wire/RdpdrRecords.h"
#include "rdpdr/wire/RdpdrStream.h"

#include <cstdint>

namespace fodr {

class IFileSystem;

class IPreReader {
public:
    static constexpr int32_t kNoPattern = -1;

    // The rule for this request, or kNoPattern.
    virtual int32_t GetPattern(const DR_DEVICE_IOREQUEST &request) const = 0;
    // The completion with its block, or a plain one when no query gave a result. `*payload` receives the
    // address of the DeviceId field. Null when there is no memory: nothing is sent then.
    virtual RdpdrStreamPtr BuildPreReadIoCompletion(int32_t pattern, uint32_t deviceId, uint32_t fileId,
                                                    IFileSystem *fileSystem, uint32_t completionId,
                                                    int32_t ioStatus, uint8_t **payload) const = 0;

protected:
    ~IPreReader() = default;
};

} // namespace fodr
