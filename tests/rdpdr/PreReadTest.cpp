#include "fileservice/FileSystemImpl.h"
#include "lib/misc/ByteBuffer.h"
#include "platform/NtRecords.h"
#include "rdpdr/PreReadManager.h"
#include "rdpdr/wire/RdpdrStream.h"

#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <tuple>

namespace fodr::test {
namespace {

using namespace nt;

TEST(PreRead, WhatIsAskedNextIsKnownOfTheseRequests)
{
    constexpr uint32_t kSequential = FILE_SEQUENTIAL_ONLY | FILE_NON_DIRECTORY_FILE;
    const struct {
        uint32_t options, disposition, sharing, access;
        int32_t pattern;
    } creates[] = {
        {kSequential, FILE_OPEN, FILE_SHARE_READ, FILE_READ_DATA, 0},
        {kSequential, FILE_OPEN, FILE_SHARE_READ | FILE_SHARE_DELETE, FILE_READ_DATA | SYNCHRONIZE, 0},
        {kSequential | FILE_DIRECTORY_FILE, FILE_OPEN, FILE_SHARE_READ, FILE_READ_DATA, 0},
        {kSequential, FILE_OPEN, FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_READ_DATA, -1},
        {kSequential, FILE_OPEN, FILE_SHARE_READ, FILE_READ_DATA | FILE_WRITE_DATA, -1},
        {kSequential | FILE_DIRECTORY_FILE, FILE_OPEN, 0, FILE_READ_DATA, -1},
        {kSequential, FILE_CREATE, 0, FILE_WRITE_DATA, 1},
        {kSequential, FILE_OVERWRITE_IF, 0, FILE_WRITE_DATA | FILE_READ_DATA, 1},
        {kSequential, FILE_OPEN, 0, FILE_WRITE_DATA, -1},
        {kSequential, FILE_CREATE, FILE_SHARE_READ, FILE_WRITE_DATA, -1},
        {kSequential, FILE_CREATE, 0, FILE_APPEND_DATA, -1},
        {FILE_SEQUENTIAL_ONLY, FILE_OPEN, FILE_SHARE_READ, FILE_READ_DATA, -1},
        {FILE_SEQUENTIAL_ONLY | FILE_DIRECTORY_FILE, FILE_OPEN, 7, FILE_READ_DATA, 3},
        {FILE_DIRECTORY_FILE, FILE_OPEN, 0, 0, 3},
        {FILE_DIRECTORY_FILE, FILE_CREATE, 0, 0, -1},
        {FILE_NON_DIRECTORY_FILE, FILE_OPEN, FILE_SHARE_READ, FILE_READ_DATA, -1},
    };
    const PreReadManager &manager = PreReadManager::GetInstance();
    DR_DEVICE_IOREQUEST request;
    for (const auto &row : creates) {
        request.MajorFunction = IRP_MJ_CREATE;
        request.SetBody(DR_CREATE_REQ{.DesiredAccess = row.access,
                                      .SharedAccess = row.sharing,
                                      .CreateDisposition = row.disposition,
                                      .CreateOptions = row.options});
        EXPECT_EQ(manager.GetPattern(request), row.pattern) << std::hex << row.options << ' ' << row.sharing;
    }
    const std::tuple<uint32_t, uint32_t, int32_t> others[] = {
        {IRP_MJ_SET_INFORMATION, FileBasicInformation, 2},
        {IRP_MJ_SET_INFORMATION, FileEndOfFileInformation, -1},
        {IRP_MJ_QUERY_INFORMATION, FileBasicInformation, -1},
        {IRP_MJ_SET_VOLUME_INFORMATION, FileBasicInformation, -1}};
    for (const auto &[major, infoClass, pattern] : others) {
        request.MajorFunction = major;
        request.SetBody(DR_DRIVE_SET_INFORMATION_REQ{.FsInformationClass = infoClass});
        EXPECT_EQ(manager.GetPattern(request), pattern) << major;
    }
}

// The answers that a test wants: by class, a size; what isn't named fails.
class Answers : public FileSystemImpl {
public:
    explicit Answers(std::map<uint32_t, size_t> wanted) : FileSystemImpl("\\??\\/"), sizes(std::move(wanted))
    {}
    NTSTATUS RedirectedQueryInformationFile(uint32_t, IO_STATUS_BLOCK *ioStatus, uint8_t **outBuffer,
                                            uint32_t infoClass) override
    {
        return Answer(infoClass, ioStatus, outBuffer);
    }
    NTSTATUS RedirectedQueryVolumeInformationFile(uint32_t, IO_STATUS_BLOCK *ioStatus, uint8_t **outBuffer,
                                                  uint32_t infoClass) override
    {
        return Answer(0x100 + infoClass, ioStatus, outBuffer);
    }

private:
    NTSTATUS Answer(uint32_t key, IO_STATUS_BLOCK *ioStatus, uint8_t **outBuffer)
    {
        const auto found = sizes.find(key);
        if (found == sizes.end())
            return STATUS_ACCESS_DENIED;
        MallocBuffer buffer = MallocBuffer::AllocateZeroed(found->second);
        memset(buffer.Data(), static_cast<int>(key & 0xFF), found->second);
        ioStatus->Information = found->second;
        *outBuffer = buffer.Release();
        return STATUS_SUCCESS;
    }

    const std::map<uint32_t, size_t> sizes;
};

TEST(PreRead, TheBlockHoldsWhatCouldBeAskedInItsOrder)
{
    const auto block = [](int32_t pattern, std::map<uint32_t, size_t> sizes) {
        Answers answers(std::move(sizes));
        uint8_t *deviceId = nullptr;
        RdpdrStreamPtr completion = PreReadManager::GetInstance().BuildPreReadIoCompletion(
            pattern, 1, 2, &answers, 3, STATUS_SUCCESS, &deviceId);
        EXPECT_EQ(deviceId, completion->Base() + kHeaderEnd);
        std::string text(reinterpret_cast<char *>(completion->Base()), completion->Size());
        return text.substr(kPreReadBlock);
    };
    using namespace std::string_literals;
    const std::string basic = "\5\0\0\0\4\0\0\0\2\0\0\0\4\4"s;
    const std::string standard = "\5\0\0\0\5\0\0\0\1\0\0\0\5"s;
    const std::string tag = "\5\0\0\0\x23\0\0\0\1\0\0\0\x23"s;
    const std::string volume = "\xA\0\0\0\5\0\0\0\1\0\0\0\5"s;
    const std::string size = "\xA\0\0\0\3\0\0\0\1\0\0\0\3"s;
    EXPECT_EQ(block(0, {{4, 2}, {5, 1}, {35, 1}, {0x105, 1}, {0x103, 1}}),
              "\x4A\0\0\0\5\0\0\0"s + basic + standard + tag + volume + size);
    EXPECT_EQ(block(1, {{4, 2}, {5, 1}, {35, 1}, {0x105, 1}, {0x103, 1}}),
              "\x3D\0\0\0\4\0\0\0"s + basic + standard + volume + size);
    EXPECT_EQ(block(2, {{5, 1}}), "\x15\0\0\0\1\0\0\0"s + standard); // one failed
    EXPECT_EQ(block(3, {}), "");                                     // all did
    // An empty answer is counted, and its room lies behind the others'.
    EXPECT_EQ(block(3, {{4, 0}, {5, 1}}), "\x21\0\0\0\2\0\0\0"s + standard + std::string(12, '\0'));
    EXPECT_EQ(block(9, {{4, 2}}), "");
}

} // namespace
} // namespace fodr::test
