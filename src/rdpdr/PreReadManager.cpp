#include "rdpdr/PreReadManager.h"

#include "fileservice/IFileSystem.h"
#include "lib/misc/ByteBuffer.h"
#include "platform/NtRecords.h"
#include "rdpdr/wire/RdpdrStream.h"
#include "runtime/LogCall.h"

namespace fodr {

using namespace nt;

namespace {

enum Pattern : int32_t {
    READ_FILE = 0,
    WRITE_NEW_FILE = 1,
    BASIC_SET = 2,
    OPEN_DIRECTORY = 3,
};

struct Rule {
    int32_t pattern;
    int32_t majorFunction;
    int32_t informationClass;
};
// In the order of the wire within a pattern.
constexpr Rule kRules[] = {
    {READ_FILE, IRP_MJ_QUERY_INFORMATION, FileBasicInformation},
    {READ_FILE, IRP_MJ_QUERY_INFORMATION, FileStandardInformation},
    {READ_FILE, IRP_MJ_QUERY_INFORMATION, FileAttributeTagInformation},
    {READ_FILE, IRP_MJ_QUERY_VOLUME_INFORMATION, FileFsAttributeInformation},
    {READ_FILE, IRP_MJ_QUERY_VOLUME_INFORMATION, FileFsSizeInformation},
    {WRITE_NEW_FILE, IRP_MJ_QUERY_INFORMATION, FileBasicInformation},
    {WRITE_NEW_FILE, IRP_MJ_QUERY_INFORMATION, FileStandardInformation},
    {WRITE_NEW_FILE, IRP_MJ_QUERY_VOLUME_INFORMATION, FileFsAttributeInformation},
    {WRITE_NEW_FILE, IRP_MJ_QUERY_VOLUME_INFORMATION, FileFsSizeInformation},
    {BASIC_SET, IRP_MJ_QUERY_INFORMATION, FileBasicInformation},
    {BASIC_SET, IRP_MJ_QUERY_INFORMATION, FileStandardInformation},
    {OPEN_DIRECTORY, IRP_MJ_QUERY_INFORMATION, FileBasicInformation},
    {OPEN_DIRECTORY, IRP_MJ_QUERY_INFORMATION, FileStandardInformation},
};

int32_t PatternOfCreate(const DR_CREATE_REQ &create)
{
    constexpr uint32_t kSequentialFile = FILE_SEQUENTIAL_ONLY | FILE_NON_DIRECTORY_FILE;
    constexpr uint32_t kLowBits = 3;
    const bool opens = create.CreateDisposition == FILE_OPEN;
    if ((create.CreateOptions & kSequentialFile) == kSequentialFile) {
        if (opens && (create.SharedAccess & kLowBits) == FILE_SHARE_READ &&
            (create.DesiredAccess & kLowBits) == FILE_READ_DATA)
            return READ_FILE;
        if (!opens && create.SharedAccess == 0 && create.DesiredAccess & FILE_WRITE_DATA)
            return WRITE_NEW_FILE;
        return IPreReader::kNoPattern;
    }
    return create.CreateOptions & FILE_DIRECTORY_FILE && opens ? OPEN_DIRECTORY : IPreReader::kNoPattern;
}

} // namespace

struct PreReadManager::Entry {
    Query query;
    MallocBuffer data;
};

PreReadManager::PreReadManager()
{
    for (const Rule &rule : kRules)
        patterns[rule.pattern].push_back({rule.majorFunction, rule.informationClass});
}

const PreReadManager &PreReadManager::GetInstance()
{
    static const PreReadManager instance;
    return instance;
}

int32_t PreReadManager::GetPattern(const DR_DEVICE_IOREQUEST &request) const
{
    FODR_TRACE_FUNCTION();
    if (request.MajorFunction == IRP_MJ_CREATE)
        return PatternOfCreate(request.Body<DR_CREATE_REQ>());
    if (request.MajorFunction == IRP_MJ_SET_INFORMATION &&
        request.Body<DR_DRIVE_SET_INFORMATION_REQ>().FsInformationClass == FileBasicInformation)
        return BASIC_SET;
    return kNoPattern;
}

std::vector<PreReadManager::Entry> PreReadManager::GeneratePreReadData(int32_t pattern, uint32_t fileId,
                                                                       IFileSystem *fileSystem) const
{
    FODR_TRACE_FUNCTION();
    std::vector<Entry> entries;
    const auto found = patterns.find(pattern);
    if (found == patterns.end()) {
        LOG_DEBUG("No matching IRP's pattern found, pre-read data is not built.\n");
        return entries;
    }
    entries.reserve(found->second.size());
    for (const Query &query : found->second) {
        const auto informationClass = static_cast<uint32_t>(query.InformationClass);
        IO_STATUS_BLOCK ioStatus{};
        uint8_t *block = nullptr;
        NTSTATUS status = STATUS_INVALID_PARAMETER;
        if (query.MajorFunction == IRP_MJ_QUERY_INFORMATION)
            status = fileSystem->RedirectedQueryInformationFile(fileId, &ioStatus, &block, informationClass);
        else if (query.MajorFunction == IRP_MJ_QUERY_VOLUME_INFORMATION)
            status =
                fileSystem->RedirectedQueryVolumeInformationFile(fileId, &ioStatus, &block, informationClass);
        MallocBuffer data(block, block ? static_cast<size_t>(ioStatus.Information) : 0);
        LOG_TRACE("Query info status = %lx\n", static_cast<unsigned long>(static_cast<uint32_t>(status)));
        if (status < 0)
            continue;
        LOG_TRACE("Pre-read info is appended to completion payload: MajorFunction = %d, InformationClass = "
                  "%d, buffer length = %ld\n",
                  query.MajorFunction, query.InformationClass, static_cast<long>(data.Size()));
        if (IsLogEnabled(LOG_LEVEL_TRACE))
            LogWriteHex("PreReadManager::GeneratePreReadData()", LOG_LEVEL_TRACE, data.Data(), data.Size());
        entries.push_back({query, std::move(data)});
    }
    return entries;
}

RdpdrStreamPtr PreReadManager::BuildPreReadIoCompletion(int32_t pattern, uint32_t deviceId, uint32_t fileId,
                                                        IFileSystem *fileSystem, uint32_t completionId,
                                                        int32_t ioStatus, uint8_t **payload) const
{
    FODR_TRACE_FUNCTION();
    std::vector<Entry> entries = GeneratePreReadData(pattern, fileId, fileSystem);
    size_t blockSize = entries.empty() ? 0 : kWireSize<FODR_PRE_READ_BLOCK>;
    for (const Entry &entry : entries)
        blockSize += kWireSize<FODR_PRE_READ_ENTRY> + entry.data.Size();
    RdpdrStreamPtr completion = BuildIoCompletion(deviceId, completionId, ioStatus, blockSize + 1, payload);
    if (!completion) {
        LOG_WARN("Failed to allocate Io completion with pre-read load.");
        return nullptr;
    }
    if (blockSize != 0) {
        LOG_TRACE("Create pre-read data for I/O completion:%d. Entries = %zu, Total Length = %d",
                  static_cast<int>(completionId), entries.size(), static_cast<int>(blockSize));
        uint8_t *out = completion->Base() + kPreReadBlock;
        StoreRecord(
            FODR_PRE_READ_BLOCK{static_cast<uint32_t>(blockSize), static_cast<uint32_t>(entries.size())},
            out);
        out += kWireSize<FODR_PRE_READ_BLOCK>;
        for (const Entry &entry : entries) {
            if (entry.data.Size() == 0)
                continue; // counted, and its room stays at the end of the block: so it goes on the wire
            StoreRecord(FODR_PRE_READ_ENTRY{static_cast<uint32_t>(entry.query.MajorFunction),
                                            static_cast<uint32_t>(entry.query.InformationClass),
                                            static_cast<uint32_t>(entry.data.Size())},
                        out);
            out += kWireSize<FODR_PRE_READ_ENTRY>;
            memcpy(out, entry.data.Data(), entry.data.Size());
            out += entry.data.Size();
        }
    }
    if (IsLogEnabled(LOG_LEVEL_TRACE))
        LogWriteHex("PreReadManager::BuildPreReadIoCompletion()", LOG_LEVEL_TRACE, completion->Base(),
                    static_cast<size_t>(completion->Size()));
    return completion;
}

} // namespace fodr
