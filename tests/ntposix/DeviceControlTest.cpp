#include "lib/unicode/NameMapping.h"
#include "ntposix/NtWords.h"
#include "platform/NtReparse.h"

#include <climits>

namespace fodr::nt {
namespace {

using DeviceControl = NtFixture;

constexpr int64_t kMegabyte = 1 << 20;

struct Reply {
    NTSTATUS status;
    std::vector<uint8_t> data;
};

// Buffers are heap blocks of just the stated lengths.
Reply Control(HANDLE file, uint32_t code, const std::vector<uint8_t> &input, uint32_t outputLength)
{
    Reply reply{0, std::vector<uint8_t>(outputLength)};
    IO_STATUS_BLOCK io{};
    reply.status =
        NtDeviceIoControlFile(file, nullptr, nullptr, nullptr, &io, code, input.data(),
                              static_cast<uint32_t>(input.size()), reply.data.data(), outputLength);
    EXPECT_EQ(io.Status, reply.status);
    EXPECT_LE(io.Information, outputLength);
    reply.data.resize(io.Information);
    return reply;
}

template <typename Record> std::vector<uint8_t> Bytes(const Record &record, size_t length = sizeof(Record))
{
    const auto *bytes = reinterpret_cast<const uint8_t *>(&record);
    return {bytes, bytes + length};
}

TEST_F(DeviceControl, AnswersWhatItKnowsAndRefusesTheRest)
{
    MakeFile("f", "text");
    const FILE_ZERO_DATA_INFORMATION zero{0, 1}, backwards{2, 1}, negative{-1, 1};
    const FILE_ALLOCATED_RANGE_BUFFER all{0, 100}, beyond{INT64_MAX, 1};
    const struct {
        uint32_t code;
        std::vector<uint8_t> input;
        uint32_t outputLength, access;
        NTSTATUS status;
    } cases[] = {
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
        {FSCTL_FODR_QUERY_HOST, {}, 7, kReadWrite, STATUS_BUFFER_TOO_SMALL},
        {FSCTL_SET_REPARSE_POINT, {}, 0, kReadWrite, STATUS_INVALID_PARAMETER},
        {FSCTL_SET_REPARSE_POINT, LxRecord(IO_REPARSE_TAG_LX_FIFO), 0, kReadWrite, STATUS_INVALID_PARAMETER},
        {FSCTL_FODR_SET_MODE, Bytes(FODR_MODE_CHANGE{}, 15), 0, kReadWrite, STATUS_INVALID_PARAMETER},
        {FSCTL_FODR_SET_MODE, Bytes(FODR_MODE_CHANGE{}), 0, GENERIC_READ, STATUS_ACCESS_DENIED},
        {FSCTL_FODR_SET_MODE, Bytes(FODR_MODE_CHANGE{8, 0, 0, 0}), 0, kReadWrite, STATUS_INVALID_PARAMETER},
        {FSCTL_FODR_SET_MODE, Bytes(FODR_MODE_CHANGE{1, 010000, 0, 0}), 0, kReadWrite,
         STATUS_INVALID_PARAMETER},
        {FSCTL_FODR_SET_MODE, Bytes(FODR_MODE_CHANGE{1, 04700, 0, 0}), 0, kReadWrite,
         STATUS_PRIVILEGE_NOT_HELD},
        {FSCTL_FODR_SET_MODE, Bytes(FODR_MODE_CHANGE{1, 02700, 0, 0}), 0, kReadWrite,
         STATUS_PRIVILEGE_NOT_HELD},
        {0, {}, 0, kReadWrite, STATUS_INVALID_DEVICE_REQUEST},
    };
    for (const auto &c : cases)
        EXPECT_EQ(Control(Open("f", {.access = c.access}), c.code, c.input, c.outputLength).status, c.status)
            << &c - cases;
    EXPECT_EQ(Control(Open("f"), FSCTL_GET_COMPRESSION, {}, 4).data, (std::vector<uint8_t>{0, 0}));
    const NtFile folder = Folder("");
    EXPECT_EQ(Control(folder, FSCTL_GET_REPARSE_POINT, {}, 100).status, STATUS_NOT_A_REPARSE_POINT);
    EXPECT_EQ(Control(folder, FSCTL_QUERY_ALLOCATED_RANGES, Bytes(all), 16).status, STATUS_INVALID_PARAMETER);
}

TEST_F(DeviceControl, ZeroDataPunchesAHoleAndNeverLengthens)
{
    std::string expected(3 * kMegabyte, 'x');
    MakeFile("f", expected);
    const NtFile file = Open("f", {.access = kReadWrite});
    const auto zero = [&](int64_t from, int64_t to) {
        return Control(file, FSCTL_SET_ZERO_DATA, Bytes(FILE_ZERO_DATA_INFORMATION{from, to}), 0).status;
    };
    EXPECT_EQ(zero(kMegabyte, 2 * kMegabyte), STATUS_SUCCESS);
    EXPECT_EQ(zero(3 * kMegabyte - 1, 9 * kMegabyte), STATUS_SUCCESS);
    const NtFile other = Open("f", {.access = kReadWrite});
    ASSERT_EQ(Lock(other, 5, 1, true), STATUS_SUCCESS);
    EXPECT_EQ(zero(0, 6), STATUS_FILE_LOCK_CONFLICT);
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
    const FILE_ALLOCATED_RANGE_BUFFER left[2]{{0, kMegabyte}, {2 * kMegabyte, kMegabyte}};
    EXPECT_EQ(whole.data, Bytes(left));
    const Reply one = ranges(0, 10 * kMegabyte, 31);
    EXPECT_EQ(one.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(one.data, Bytes(left[0]));
    EXPECT_EQ(ranges(kMegabyte, kMegabyte, 64).data.size(), 0u);
    EXPECT_EQ(ranges(kMegabyte / 2, 1, 64).data, Bytes(FILE_ALLOCATED_RANGE_BUFFER{kMegabyte / 2, 1}));
}

TEST_F(DeviceControl, OnlyAnEmptyFileOfOneNameBecomesALink)
{
    const auto link = [](const std::string &target) { return LxRecord(IO_REPARSE_TAG_LX_SYMLINK, target); };
    std::vector<uint8_t> longer = link("x"), older = link("x");
    longer[4] = 6;
    older[8] = 1;
    const struct {
        std::vector<uint8_t> record;
        NTSTATUS status;
    } records[] = {
        {link(""), STATUS_INVALID_PARAMETER},
        {link(std::string("a\0b", 3)), STATUS_INVALID_PARAMETER},
        {link(std::string(PATH_MAX, 'x')), STATUS_INVALID_PARAMETER},
        {longer, STATUS_INVALID_PARAMETER},
        {older, STATUS_INVALID_PARAMETER},
        {LxRecord(IO_REPARSE_TAG_LX_FIFO, "x"), STATUS_INVALID_PARAMETER},
        {LxRecord(0x80000025), STATUS_NOT_SUPPORTED}, // a device
        {SymbolicLinkRecord("x"), STATUS_NOT_SUPPORTED},
    };
    const auto set = [&](const std::vector<uint8_t> &record, uint32_t access = GENERIC_WRITE) {
        return Control(Open("f", {.access = access}), FSCTL_SET_REPARSE_POINT, record, 0).status;
    };
    MakeFile("f");
    for (const auto &c : records)
        EXPECT_EQ(set(c.record), c.status) << &c - records;
    EXPECT_EQ(set(link("x"), GENERIC_READ), STATUS_ACCESS_DENIED);
    std::filesystem::create_hard_link(root / "f", root / "g");
    EXPECT_EQ(set(link("x")), STATUS_INVALID_PARAMETER);
    std::filesystem::remove(root / "g");
    // Another file has the name by now.
    const NtFile replaced = Open("f", {.access = GENERIC_WRITE});
    MakeFile("new", "saved");
    OthersMove("new", "f");
    EXPECT_EQ(Control(replaced, FSCTL_SET_REPARSE_POINT, link("x"), 0).status, STATUS_FILE_DELETED);
    EXPECT_EQ(Content("f"), "saved");
    std::filesystem::remove(root / "f");
    // As the mount does it: the file goes with its handle, the link stays.
    for (const bool refused : {true, false}) {
        {
            const NtFile made = Open("f", {.access = GENERIC_WRITE | DELETE_ACCESS,
                                           .disposition = FILE_CREATE,
                                           .options = FILE_DELETE_ON_CLOSE});
            EXPECT_EQ(Control(made, FSCTL_SET_REPARSE_POINT, link(refused ? "" : "to/where"), 0).status,
                      refused ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS);
        }
        EXPECT_EQ(std::filesystem::is_symlink(root / "f"), !refused);
    }
    EXPECT_EQ(std::filesystem::read_symlink(root / "f"), "to/where");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(root), {}), 1) << "nothing is left beside it";
}

TEST_F(DeviceControl, ReservesSpaceAndCopiesRanges)
{
    MakeFile("source", std::string(3 * kMegabyte, 's'));
    MakeFile("target", "old");
    MakeFolder("folder");
    const NtFile source = Open("source"), target = Open("target", {.access = kReadWrite});
    const NtFile unread = Open("source", {.access = GENERIC_WRITE}), folder = Folder("folder");
    const auto allocate = [&](uint32_t mode, int64_t offset, int64_t length) {
        return Control(target, FSCTL_FODR_ALLOCATE, Bytes(FODR_ALLOCATION{mode, 0, offset, length}), 0)
            .status;
    };
    EXPECT_EQ(allocate(0, 0, 100), STATUS_SUCCESS);
    EXPECT_EQ(allocate(FODR_KEEP_SIZE, 0, kMegabyte), STATUS_SUCCESS);
    const FILE_STANDARD_INFORMATION held = StandardOf(target);
    EXPECT_EQ(held.EndOfFile, 100);
    EXPECT_GE(held.AllocationSize, kMegabyte);
    for (const auto &[mode, offset, length] : {std::tuple<uint32_t, int64_t, int64_t>{2, 0, 1},
                                               {3, 0, 1},
                                               {0, -1, 1},
                                               {0, 0, 0},
                                               {0, 1, INT64_MAX}})
        EXPECT_EQ(allocate(mode, offset, length), STATUS_INVALID_PARAMETER) << mode << offset;
    EXPECT_EQ(allocate(0, 0, INT64_MAX - 1), STATUS_DISK_FULL);
    EXPECT_EQ(StandardOf(target).EndOfFile, 100);

    const auto copy = [&](HANDLE from, HANDLE to, int64_t offset, int64_t at, int64_t length) {
        const FODR_RANGE_COPY record{reinterpret_cast<uintptr_t>(from), offset, at, length};
        return Control(to, FSCTL_FODR_COPY_RANGE, Bytes(record), 8);
    };
    const Reply copied = copy(source, target, kMegabyte, 2, 9 * kMegabyte);
    ASSERT_EQ(copied.status, STATUS_SUCCESS);
    EXPECT_EQ(copied.data, Bytes(uint64_t{2 * kMegabyte})); // what there is
    EXPECT_EQ(Content("target"), "ol" + std::string(2 * kMegabyte, 's'));
    EXPECT_EQ(copy(source, target, 9 * kMegabyte, 0, 1).data, Bytes(uint64_t{0}));
    EXPECT_EQ(copy(unread, target, 0, 0, 1).status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(copy(source, source, 0, 0, 1).status, STATUS_ACCESS_DENIED); // isn't written to
    EXPECT_EQ(copy(folder, target, 0, 0, 1).status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(copy(nullptr, target, 0, 0, 1).status, STATUS_INVALID_HANDLE);
    EXPECT_EQ(copy(source, target, -1, 0, 1).status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(copy(source, target, 0, INT64_MAX, 2).status, STATUS_INVALID_PARAMETER);
    const NtFile other = Open("target", {.access = kReadWrite});
    ASSERT_EQ(Lock(other, 5, 1, true), STATUS_SUCCESS);
    EXPECT_EQ(copy(source, target, 0, 5, 1).status, STATUS_FILE_LOCK_CONFLICT);
    EXPECT_EQ(allocate(FODR_ZERO_RANGE, 5, 1), STATUS_FILE_LOCK_CONFLICT);
}

TEST_F(DeviceControl, ALinkOpenedAsItselfTellsItsTarget)
{
    MakeSymlink("sub/f", "link");
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

    // Whatever bytes a target has, they come back.
    std::string longest;
    while (longest.size() < 4095)
        longest += longest.size() % 100 == 99 ? '/' : '\xFF';
    const std::string targets[] = {"/abs/olute/",  "..//up/./x", "bad\xFF\xC3utf8",
                                   "back\\slash",  "\\first",    "C:colon:stream",
                                   "\xEF\x80\xBA", "/",          longest};
    for (const std::string &target : targets) {
        SCOPED_TRACE(target.substr(0, 40));
        std::filesystem::remove(root / "odd");
        ASSERT_EQ(symlink(target.c_str(), Path("odd").c_str()), 0);
        const NtFile odd = Open("odd", {.access = FILE_READ_ATTRIBUTES, .options = FILE_OPEN_REPARSE_POINT});
        const Reply told = Control(odd, FSCTL_GET_REPARSE_POINT, {}, 32768);
        ASSERT_EQ(told.status, STATUS_SUCCESS);
        SYMBOLIC_LINK_REPARSE_DATA data;
        memcpy(&data, told.data.data(), sizeof(data));
        EXPECT_EQ(data.Flags, target[0] == '/' ? 0u : 1u);
        ASSERT_EQ(sizeof(data) + data.SubstituteNameLength + data.PrintNameLength, told.data.size());
        std::u16string print(data.PrintNameLength / 2, u'\0');
        memcpy(print.data(), told.data.data() + sizeof(data) + data.PrintNameOffset, data.PrintNameLength);
        std::string back;
        EXPECT_TRUE(PosixPathFromNt(print, back));
        EXPECT_EQ(back, target);
    }
}

} // namespace
} // namespace fodr::nt
