// The rules of pre-read: after which requests the agent asks what next, and the block that answers it.
#pragma once

#include "fileservice/IRedirectedDevice.h"

#include <map>
#include <vector>

namespace fodr {

class MallocBuffer;

// Nothing changes after construction.
class PreReadManager final : public IPreReader {
public:
    static const PreReadManager &GetInstance();

    int32_t GetPattern(const DR_DEVICE_IOREQUEST &request) const override;
    // Runs the queries of the pattern on the file, one after the other on the calling thread. The block:
    // TotalLength and EntryCount, then of each query that gave a result MajorFunction, InformationClass,
    // Length and the result.
    RdpdrStreamPtr BuildPreReadIoCompletion(int32_t pattern, uint32_t deviceId, uint32_t fileId,
                                            IFileSystem *fileSystem, uint32_t completionId, int32_t ioStatus,
                                            uint8_t **payload) const override;

private:
    struct Query {
        int32_t MajorFunction;
        int32_t InformationClass;
    };
    struct Entry;

    PreReadManager();
    std::vector<Entry> GeneratePreReadData(int32_t pattern, uint32_t fileId, IFileSystem *fileSystem) const;

    std::map<int32_t, std::vector<Query>> patterns;
};

} // namespace fodr
