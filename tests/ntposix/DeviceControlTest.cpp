#include "ntposix/NtFixture.h"

#include <cstring>
#include <vector>

namespace fodr::nt {
namespace {

constexpr uint32_t kReadWrite = GENERIC_READ | GENERIC_WRITE;
constexpr int64_t kMegabyte = 1 << 20;

struct Reply {
    NTSTATUS status;
    std::vector<uint8_t> data;
};

// Buffers are heap blocks of just the stated lengths.
Reply Control(HANDLE file, uint32_t code, const std::vector<uint8_t> &input, uint32_t outputLength)
{
    const std::vector<uint8_t> in(input);
    Reply reply{0, std::vector<uint8_t>(outputLength)};
    IO_STATUS_BLOCK io{};
    reply.status = NtDeviceIoControlFile(file, nullptr, nullptr, nullptr, &io, code, in.data(),
                                         static_cast<uint32_t>(in.size()), reply.data.data(), outputLength);
    EXPECT_EQ(io.Status, reply.status);
    EXPECT_LE(io.Information, outputLength);
    reply.data.resize(io.Information);
    return reply;
}

template <typename Record> std::vector<uint8_t> Bytes(const Record &record, size_t length = sizeof(Record))
{
    std::vector<uint8_t> bytes(sizeof(Record));
    memcpy(bytes.data(), &record, sizeof(Record));
    bytes.resize(length);
    return bytes;
}

class DeviceControl : public NtFixture {
protected:
    std::string Content(std::string_view name) const
    {
        std::ifstream file(Path(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
};

TEST_F(DeviceControl, AnswersWhatItKnowsAndRefusesTheRest)
{
    MakeFile("f", "text");
    struct Case {
        uint32_t code;
        std::vector<uint8_t> input;
        uint32_t outputLength;
        uint32_t access;
        NTSTATUS status;
    };
    const FILE_ZERO_DATA_INFORMATION zero{0, 1}, backwards{2, 1}, negative{-1, 1};
    const FILE_ALLOCATED_RANGE_BUFFER all{0, 100}, beyond{INT64_MAX, 1};
    const Case cases[] = {
        {FSCTL_GET_REPARSE_POINT, {}, 100, kReadWrite, STATUS_NOT_A_REPARSE_POINT},
        {FSCTL_SET_SPARSE, {}, 0, kReadWrite, STATUS_SUCCESS},
        {FSCTL_SET_SPARSE, {0}, 0, kReadWrite, STATUS_SUCCESS},
        {FSCTL_SET_SPARSE, {1}, 0, GENERIC_READ, STATUS_ACCESS_DENIED},
        {FSCTL_SET_ZERO_DATA, Bytes(zero), 0, kReadWrite, STATUS_SUCCESS},
        {FSCTL_SET_ZERO_DATA, Bytes(zero, 15), 0, kReadWrite, STATUS_INVALID_PARAMETER},
        {FSCTL_SET_ZERO_DATA, Bytes(backwards), 0, kReadWrite, STATUS_INVALID_PARAMETER},
        {FSCTL_SET_ZERO_DATA, Bytes(negative), 0, kReadWrite, STATUS_INVALID_PARAMETER},
        {FSCTL_SET_ZERO_DATA, Bytes(zero), 0, GENERIC_READ, STATUS_ACCESS_DENIED},
        {FSCTL_QUERY_ALLOCATED_RANGES, Bytes(all), 16, kReadWrite, STATUS_SUCCESS},
        {FSCTL_QUERY_ALLOCATED_RANGES, Bytes(all), 15, kReadWrite, STATUS_BUFFER_TOO_SMALL},
        {FSCTL_QUERY_ALLOCATED_RANGES, Bytes(all, 8), 16, kReadWrite, STATUS_INVALID_PARAMETER},
        {FSCTL_QUERY_ALLOCATED_RANGES, Bytes(beyond), 16, kReadWrite, STATUS_INVALID_PARAMETER},
        {FSCTL_QUERY_ALLOCATED_RANGES, Bytes(all), 16, GENERIC_WRITE, STATUS_ACCESS_DENIED},
        {FSCTL_GET_COMPRESSION, {}, 1, kReadWrite, STATUS_INVALID_PARAMETER},
        {FSCTL_SET_COMPRESSION, {0, 0}, 0, kReadWrite, STATUS_SUCCESS},
        {FSCTL_SET_COMPRESSION, {1, 0}, 0, kReadWrite, STATUS_INVALID_DEVICE_REQUEST},
        {FSCTL_SET_COMPRESSION, {0}, 0, kReadWrite, STATUS_INVALID_PARAMETER},
        {0x900A4 /* set reparse point */, {}, 0, kReadWrite, STATUS_INVALID_DEVICE_REQUEST},
        {0, {}, 0, kReadWrite, STATUS_INVALID_DEVICE_REQUEST},
    };
    for (const Case &c : cases) {
        const NtFile file = Open("f", {.access = c.access});
        const Reply reply = Control(file, c.code, c.input, c.outputLength);
        EXPECT_EQ(reply.status, c.status) << &c - cases;
    }
    EXPECT_EQ(Control(Open("f"), FSCTL_GET_COMPRESSION, {}, 4).data, (std::vector<uint8_t>{0, 0}));
    EXPECT_EQ(Control(nullptr, FSCTL_GET_COMPRESSION, {}, 4).status, STATUS_INVALID_HANDLE);
    const NtFile folder = Open("", {.options = FILE_DIRECTORY_FILE});
    EXPECT_EQ(Control(folder, FSCTL_GET_REPARSE_POINT, {}, 100).status, STATUS_NOT_A_REPARSE_POINT);
    EXPECT_EQ(Control(folder, FSCTL_QUERY_ALLOCATED_RANGES, Bytes(all), 16).status, STATUS_INVALID_PARAMETER);
}

TEST_F(DeviceControl, ZeroDataPunchesAHoleAndNeverLengthens)
{
    MakeFile("f", std::string(3 * kMegabyte, 'x'));
    const NtFile file = Open("f", {.access = kReadWrite});
    const FILE_ZERO_DATA_INFORMATION middle{kMegabyte, 2 * kMegabyte}, tail{3 * kMegabyte - 1, 9 * kMegabyte};
    ASSERT_EQ(Control(file, FSCTL_SET_ZERO_DATA, Bytes(middle), 0).status, STATUS_SUCCESS);
    ASSERT_EQ(Control(file, FSCTL_SET_ZERO_DATA, Bytes(tail), 0).status, STATUS_SUCCESS);
    // A lock of another handle is in the way.
    const NtFile other = Open("f", {.access = kReadWrite});
    IO_STATUS_BLOCK io{};
    LARGE_INTEGER lockAt{5}, lockLength{1};
    ASSERT_EQ(NtLockFile(other, nullptr, nullptr, nullptr, &io, &lockAt, &lockLength, 0, true, true),
              STATUS_SUCCESS);
    const FILE_ZERO_DATA_INFORMATION over{0, 6};
    EXPECT_EQ(Control(file, FSCTL_SET_ZERO_DATA, Bytes(over), 0).status, STATUS_FILE_LOCK_CONFLICT);
    std::string expected(3 * kMegabyte, 'x');
    expected.replace(kMegabyte, kMegabyte, kMegabyte, '\0');
    expected.back() = '\0';
    EXPECT_TRUE(Content("f") == expected);

    // The ranges that are left, cut to what was asked for.
    const auto ranges = [&](int64_t offset, int64_t length, uint32_t room) {
        return Control(file, FSCTL_QUERY_ALLOCATED_RANGES, Bytes(FILE_ALLOCATED_RANGE_BUFFER{offset, length}),
                       room);
    };
    const Reply whole = ranges(0, 10 * kMegabyte, 64);
    EXPECT_EQ(whole.status, STATUS_SUCCESS);
    if (whole.data.size() == 16)
        GTEST_SKIP() << "the file system of " << root << " keeps no holes";
    ASSERT_EQ(whole.data.size(), 32u);
    FILE_ALLOCATED_RANGE_BUFFER found[2];
    memcpy(found, whole.data.data(), sizeof(found));
    EXPECT_EQ(found[0].FileOffset, 0);
    EXPECT_EQ(found[0].Length, kMegabyte);
    EXPECT_EQ(found[1].FileOffset, 2 * kMegabyte);
    EXPECT_EQ(found[1].Length, kMegabyte);
    const Reply one = ranges(0, 10 * kMegabyte, 31);
    EXPECT_EQ(one.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(one.data.size(), 16u);
    EXPECT_EQ(ranges(kMegabyte, kMegabyte, 64).data.size(), 0u);
    EXPECT_EQ(ranges(kMegabyte / 2, 1, 64).data, Bytes(FILE_ALLOCATED_RANGE_BUFFER{kMegabyte / 2, 1}));
}

TEST_F(DeviceControl, ALinkOpenedAsItselfTellsItsTarget)
{
    ASSERT_EQ(symlink("sub/f", Path("link").c_str()), 0);
    const NtFile link = Open("link", {.access = FILE_READ_ATTRIBUTES, .options = FILE_OPEN_REPARSE_POINT});
    const Reply reply = Control(link, FSCTL_GET_REPARSE_POINT, {}, 1024);
    ASSERT_EQ(reply.status, STATUS_SUCCESS);
    // MS-FSCC 2.1.2.4: substitute and print name one behind the other, relative.
    const SYMBOLIC_LINK_REPARSE_DATA head{IO_REPARSE_TAG_SYMLINK, 12 + 20, 0, 0, 10, 10, 10, 1};
    auto expected = Bytes(head);
    for (const char c : std::string("sub\\fsub\\f")) {
        expected.push_back(static_cast<uint8_t>(c));
        expected.push_back(0);
    }
    EXPECT_EQ(reply.data, expected);
    EXPECT_EQ(Control(link, FSCTL_GET_REPARSE_POINT, {}, sizeof(head)).status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(Control(link, FSCTL_GET_REPARSE_POINT, {}, 8).status, STATUS_BUFFER_TOO_SMALL);
}

} // namespace
} // namespace fodr::nt
