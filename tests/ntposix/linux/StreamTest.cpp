// Named streams, which are extended attributes of their file.
#include "ntposix/NtWords.h"

#include <algorithm>
#include <atomic>
#include <sys/fsuid.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/xattr.h>

namespace fodr::nt {
namespace {

constexpr uint32_t kDeletable = GENERIC_READ | DELETE_ACCESS;

class StreamsAnywhere : public NtFixture {
protected:
    // With the zero at its end; "none" when there is no such attribute.
    std::string Attribute(const char *name, const char *file = "file") const
    {
        char value[70000];
        const ssize_t length = getxattr(Path(file).c_str(), name, value, sizeof(value));
        return length < 0 ? "none" : std::string(value, static_cast<size_t>(length));
    }
    // "NAME SIZE" of all.
    std::vector<std::string> Listed(HANDLE file, uint32_t room = 4096, NTSTATUS expected = STATUS_SUCCESS)
    {
        std::vector<uint8_t> buffer(room);
        IO_STATUS_BLOCK io{};
        EXPECT_EQ(NtQueryInformationFile(file, &io, buffer.data(), room, FileStreamInformation), expected);
        std::vector<std::string> list;
        for (size_t at = 0; io.Information != 0;) {
            FILE_STREAM_INFORMATION record;
            memcpy(&record, buffer.data() + at, offsetof(FILE_STREAM_INFORMATION, StreamName));
            std::u16string name(record.StreamNameLength / 2, u'\0');
            memcpy(name.data(), buffer.data() + at + 24, record.StreamNameLength);
            list.push_back(Utf8(name) + " " + std::to_string(record.StreamSize));
            if (record.NextEntryOffset == 0)
                break;
            EXPECT_EQ(record.NextEntryOffset % 8, 0u);
            at += record.NextEntryOffset;
        }
        std::sort(list.begin(), list.end());
        return list;
    }
};

class Streams : public StreamsAnywhere {
protected:
    void SetUp() override
    {
        MakeFile("file", "0123");
        if (setxattr(Path("file").c_str(), "user.DosStream.Old:$DATA", "old", 4, 0) != 0)
            GTEST_SKIP() << "no extended attributes here";
    }
};

TEST_F(Streams, DispositionsAreThoseOfFiles)
{
    const struct {
        const char *name;
        uint32_t disposition;
        NTSTATUS status;
        uint64_t information;
        const char *content;
    } cases[] = {
        {"file:Old", FILE_OPEN, STATUS_SUCCESS, FILE_OPENED, "old"},
        {"file:old:$data", FILE_OPEN_IF, STATUS_SUCCESS, FILE_OPENED, "old"},
        {"file:old", FILE_CREATE, STATUS_OBJECT_NAME_COLLISION, FILE_EXISTS, ""},
        {"file:no", FILE_OPEN, STATUS_OBJECT_NAME_NOT_FOUND, FILE_DOES_NOT_EXIST, ""},
        {"file:no", FILE_OVERWRITE, STATUS_OBJECT_NAME_NOT_FOUND, FILE_DOES_NOT_EXIST, ""},
        {"none:no", FILE_OPEN, STATUS_OBJECT_NAME_NOT_FOUND, FILE_DOES_NOT_EXIST, ""},
        {"none\\x:no", FILE_CREATE, STATUS_OBJECT_PATH_NOT_FOUND, 0, ""},
        {"file:one", FILE_CREATE, STATUS_SUCCESS, FILE_CREATED, ""},
        {"file:two", FILE_OPEN_IF, STATUS_SUCCESS, FILE_CREATED, ""},
        {"new:three", FILE_OVERWRITE_IF, STATUS_SUCCESS, FILE_CREATED, ""}, // and its file
        {"file:OLD", FILE_OVERWRITE, STATUS_SUCCESS, FILE_OVERWRITTEN, ""},
        {"file:one", FILE_SUPERSEDE, STATUS_SUCCESS, FILE_SUPERSEDED, ""},
        {"file:a:b", FILE_OPEN_IF, STATUS_OBJECT_NAME_INVALID, 0, ""},
        {"file:a*b", FILE_OPEN_IF, STATUS_OBJECT_NAME_INVALID, 0, ""},
        {"file:a\\", FILE_OPEN_IF, STATUS_OBJECT_NAME_INVALID, 0, ""},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(std::string(test.name) + " " + std::to_string(test.disposition));
        const NtFile stream = Open(test.name, {.access = kReadWrite, .disposition = test.disposition});
        EXPECT_EQ(stream.status, test.status);
        EXPECT_EQ(stream.information, test.information);
        if (test.status == STATUS_SUCCESS) {
            EXPECT_EQ(ReadAt(stream, 0, 10).text, test.content);
        }
    }
    for (const uint32_t disposition : {FILE_OPEN, FILE_CREATE, FILE_OVERWRITE_IF})
        EXPECT_EQ(Open("file:" + std::string(240, 'n'), {.disposition = disposition}).status,
                  STATUS_NAME_TOO_LONG);
    EXPECT_EQ(Open("file:d", {.disposition = FILE_CREATE, .options = FILE_DIRECTORY_FILE}).status,
              STATUS_INVALID_PARAMETER);
    const NtFile made = Open("new");
    EXPECT_EQ(Listed(made), (std::vector<std::string>{"::$DATA 0", ":three:$DATA 0"}));
    EXPECT_EQ(std::filesystem::exists(Path("none")), false);
}

TEST_F(Streams, WhatIsWrittenIsStoredAtOnceAndTheFileStays)
{
    const NtFile one = Open("file:Zone.Identifier", {.access = kReadWrite, .disposition = FILE_CREATE});
    const NtFile two = Open("file:ZONE.IDENTIFIER", {.access = kReadWrite});
    const char *const name = "user.DosStream.Zone.Identifier:$DATA";
    using namespace std::string_literals;
    EXPECT_EQ(WriteAt(one, 0, "[Zone]"), (Outcome{STATUS_SUCCESS, 6}));
    EXPECT_EQ(Attribute(name), "[Zone]\0"s);
    EXPECT_EQ(WriteAt(two, -1, "\r\n"), (Outcome{STATUS_SUCCESS, 2}));
    EXPECT_EQ(ReadAt(one, 0, 100).text, "[Zone]\r\n");
    EXPECT_EQ(ReadAt(one, 8, 1).status, STATUS_END_OF_FILE);
    EXPECT_EQ(Set(one, FileEndOfFileInformation, FILE_END_OF_FILE_INFORMATION{3}), STATUS_SUCCESS);
    EXPECT_EQ(Attribute(name), "[Zo\0"s);
    EXPECT_EQ(StandardOf(two).EndOfFile, 3);
    EXPECT_EQ(BasicOf(two).CreationTime, BasicOf(Open("file")).CreationTime);
    EXPECT_EQ(IdOf(one), IdOf(Open("file")));
    EXPECT_EQ(ReadAt(Open("file"), 0, 10).text, "0123");
    EXPECT_EQ(Listed(Open("file")),
              (std::vector<std::string>{"::$DATA 4", ":Old:$DATA 3", ":Zone.Identifier:$DATA 3"}));
    // As many as fit, whole.
    EXPECT_EQ(Listed(one, 80, STATUS_INFO_LENGTH_MISMATCH).size(), 1u);
    // A name is the file's: it isn't changed through a stream.
    const NtFile renamed = Open("file:old", {.access = kDeletable});
    EXPECT_EQ(Rename(renamed, NtPath("elsewhere")), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(std::filesystem::exists(Path("file")));
}

TEST_F(Streams, OtherAttributesOfUsersAreStreamsOfTheirWholeName)
{
    ASSERT_EQ(setxattr(Path("file").c_str(), "user.made", "x\0", 2, 0), 0);
    ASSERT_EQ(setxattr(Path("file").c_str(), "user.DosStream.user.odd:$DATA", "y", 1, 0), 0);
    EXPECT_EQ(ReadAt(Open("file:user.made"), 0, 9).text, std::string("x\0", 2));
    EXPECT_EQ(Open("file:USER.MADE").status, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Open("file:user.odd").status, STATUS_OBJECT_NAME_NOT_FOUND); // it isn't that attribute
    const NtFile own = Open("file:user.Made", {.access = kReadWrite, .disposition = FILE_CREATE});
    ASSERT_EQ(own.status, STATUS_SUCCESS);
    EXPECT_EQ(Attribute("user.Made"), "");
    EXPECT_EQ(WriteAt(own, 0, "own").status, STATUS_SUCCESS);
    EXPECT_EQ(Attribute("user.Made"), "own");
    const std::vector<std::string> listed = Listed(own);
    for (const char *entry : {":user.made:$DATA 2", ":user.Made:$DATA 3"})
        EXPECT_EQ(std::count(listed.begin(), listed.end(), entry), 1) << entry;
}

// In a record as other tools write it, which keeps what else it says.
TEST_F(Streams, HiddenAndSystemAreKeptInAnAttribute)
{
    constexpr const char *kName = "user.DOSATTRIB";
    const auto set = [&](uint32_t attributes) {
        const NtFile file = Open("file", {.access = FILE_WRITE_ATTRIBUTES});
        return Set(file, FileBasicInformation, FILE_BASIC_INFORMATION{0, 0, 0, 0, attributes});
    };
    const auto kept = [&] {
        const NtFile file = Open("file", {.access = FILE_READ_ATTRIBUTES});
        return BasicOf(file).FileAttributes & 7;
    };
    EXPECT_EQ(set(FILE_ATTRIBUTE_NORMAL), STATUS_SUCCESS);
    EXPECT_EQ(Attribute(kName), "none");
    EXPECT_EQ(set(FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_READONLY), STATUS_SUCCESS);
    EXPECT_EQ(kept(), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_READONLY);
    EXPECT_EQ(Attribute(kName).substr(0, 16), std::string("\0\0\3\0\3\0\0\0\x11\0\0\0\x22\0\0\0", 16));
    EXPECT_EQ(set(FILE_ATTRIBUTE_NORMAL), STATUS_SUCCESS);
    EXPECT_EQ(kept(), 0u);
    const struct {
        std::string value;
        uint32_t attributes;
    } others[] = {
        {"0x26", 6},
        {std::string("\0\0\4\0\4\0\0\0\x51\0\0\0\x24\0\0\0sixteen bytes...", 32), 4},
        {std::string("\0\0\3\0\3\0\0\0\x10\0\0\0\x26\0\0\0", 16), 0}, // which doesn't count
        {std::string("\0\0\3\0\3\0\0\0\x11\0\0", 11), 0},
        {"\1", 0},
    };
    for (const auto &other : others) {
        ASSERT_EQ(setxattr(Path("file").c_str(), kName, other.value.data(), other.value.size(), 0), 0);
        EXPECT_EQ(kept(), other.attributes) << other.value;
    }
    ASSERT_EQ(setxattr(Path("file").c_str(), kName, others[1].value.data(), 32, 0), 0);
    EXPECT_EQ(set(FILE_ATTRIBUTE_HIDDEN), STATUS_SUCCESS);
    std::string changed = others[1].value;
    changed[12] = 0x22;
    EXPECT_EQ(Attribute(kName), changed);
}

TEST_F(Streams, MoreThanAnAttributeHoldsIsRefusedAndChangesNothing)
{
    const NtFile stream = Open("file:old", {.access = kReadWrite});
    const std::string much(66000, 'x');
    EXPECT_EQ(WriteAt(stream, 0, much), (Outcome{STATUS_DISK_FULL, 0}));
    EXPECT_EQ(WriteAt(stream, int64_t{1} << 40, "x"), (Outcome{STATUS_DISK_FULL, 0}));
    EXPECT_EQ(Set(stream, FileEndOfFileInformation, FILE_END_OF_FILE_INFORMATION{int64_t{1} << 40}),
              STATUS_DISK_FULL);
    EXPECT_EQ(ReadAt(stream, 0, 10).text, "old");
    // By the file system, if it has such a limit.
    if (WriteAt(stream, 0, much.substr(0, 60000)).status == STATUS_SUCCESS)
        GTEST_SKIP() << "holds as much as any";
    EXPECT_EQ(ReadAt(stream, 0, 10).text, "old");
    EXPECT_EQ(StandardOf(stream).EndOfFile, 3);
}

TEST_F(Streams, DeletionTakesTheStreamAndLeavesTheFile)
{
    for (const bool onClose : {false, true}) {
        EXPECT_EQ(Open("file:gone", {.disposition = FILE_CREATE}).status, STATUS_SUCCESS);
        {
            const NtFile other = Open("file:gone");
            {
                const NtFile stream =
                    Open("file:gone", {.access = kDeletable, .options = onClose ? FILE_DELETE_ON_CLOSE : 0u});
                EXPECT_EQ(onClose ? STATUS_SUCCESS : Delete(stream), STATUS_SUCCESS);
            }
            EXPECT_EQ(Open("file:gone").status, STATUS_DELETE_PENDING);
            EXPECT_EQ(Open("file").status, STATUS_SUCCESS);
        }
        EXPECT_EQ(Open("file:gone").status, STATUS_OBJECT_NAME_NOT_FOUND);
        EXPECT_EQ(Attribute("user.DosStream.gone:$DATA"), "none");
    }
    EXPECT_EQ(ReadAt(Open("file"), 0, 10).text, "0123");
    // A file goes with its streams, when the last of both is closed.
    {
        const NtFile stream = Open("file:old");
        {
            const NtFile file = Open("file", {.access = kDeletable});
            EXPECT_EQ(Delete(file), STATUS_SUCCESS);
        }
        EXPECT_EQ(ReadAt(stream, 0, 10).text, "old");
        EXPECT_EQ(Open("file:old").status, STATUS_DELETE_PENDING);
    }
    EXPECT_FALSE(std::filesystem::exists(Path("file")));
}

TEST_F(Streams, ShareModesAndRightsAreTheStreamsOwn)
{
    MakeFolder("folder");
    const NtFile alone = Open("file:old", {.access = kReadWrite, .share = 0});
    EXPECT_EQ(Open("file:Old").status, STATUS_SHARING_VIOLATION);
    EXPECT_EQ(Open("file", {.access = kReadWrite, .share = 0}).status, STATUS_SUCCESS);
    EXPECT_EQ(Open("file:other", {.disposition = FILE_CREATE, .share = 0}).status, STATUS_SUCCESS);
    EXPECT_EQ(WriteAt(Open("file:other"), 0, "x").status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(Open("folder:s", {.access = kReadWrite, .disposition = FILE_CREATE}).status, STATUS_SUCCESS);
    EXPECT_EQ(Listed(Open("folder")), std::vector<std::string>{":s:$DATA 0"});
    EXPECT_EQ(chmod(Path("file").c_str(), 0444), 0);
    EXPECT_EQ(Open("file:other").status, STATUS_SUCCESS);
    EXPECT_EQ(Open("file:other", {.access = kReadWrite}).status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(Open("file:more", {.access = kReadWrite, .disposition = FILE_OPEN_IF}).status,
              STATUS_ACCESS_DENIED);
    EXPECT_EQ(Open("file:other", {.access = kDeletable, .options = FILE_DELETE_ON_CLOSE}).status,
              STATUS_CANNOT_DELETE);
}

// As somebody whom permissions bind.
TEST_F(Streams, ANewFileBecomesReadOnlyWhenItHasItsStream)
{
    if (geteuid() == 0) {
        ASSERT_EQ(chown(Path("").c_str(), 65534, 65534), 0);
        setfsuid(65534);
    }
    const NtFile stream = Open(
        "new:s", {.access = kReadWrite, .disposition = FILE_CREATE, .attributes = FILE_ATTRIBUTE_READONLY});
    EXPECT_EQ(stream.status, STATUS_SUCCESS);
    EXPECT_EQ(Open("new", {.access = kReadWrite}).status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(Listed(Open("new")), (std::vector<std::string>{"::$DATA 0", ":s:$DATA 0"}));
    setfsuid(geteuid());
}

TEST_F(Streams, AnOverwrittenFileLosesThemAndOthersSeeThem)
{
    uint32_t attributes = 0;
    EXPECT_TRUE(GetFileAttributes(NtPath("file:OLD").c_str(), &attributes));
    EXPECT_FALSE(GetFileAttributes(NtPath("file:none").c_str(), &attributes));
    EXPECT_EQ(setxattr(Path("file").c_str(), "user.DosStream.hand:$DATA", "made", 4, 0), 0); // without a zero
    EXPECT_EQ(ReadAt(Open("file:hand"), 0, 10).text, "made");
    NtFile held = Open("file:old", {.access = kReadWrite | DELETE_ACCESS});
    EXPECT_EQ(Open("file", {.access = kReadWrite, .disposition = FILE_OVERWRITE}).status, STATUS_SUCCESS);
    EXPECT_EQ(Listed(Open("file")), std::vector<std::string>{"::$DATA 0"});
    EXPECT_EQ(Open("file:old").status, STATUS_OBJECT_NAME_NOT_FOUND);
    // Who has it open can't bring it back, nor take its successor away.
    EXPECT_EQ(WriteAt(held, 0, "x").status, STATUS_FILE_CLOSED);
    EXPECT_EQ(Open("file:old", {.disposition = FILE_CREATE, .share = 0}).status, STATUS_SUCCESS);
    EXPECT_EQ(Delete(held), STATUS_SUCCESS);
    EXPECT_EQ(held.Close(), STATUS_SUCCESS);
    EXPECT_EQ(ReadAt(Open("file:old"), 0, 10).status, STATUS_END_OF_FILE);
    struct {
        FILE_FS_ATTRIBUTE_INFORMATION record;
        char16_t rest[8];
    } volume{};
    IO_STATUS_BLOCK io{};
    EXPECT_EQ(
        NtQueryVolumeInformationFile(Open("file"), &io, &volume, sizeof(volume), FileFsAttributeInformation),
        STATUS_SUCCESS);
    EXPECT_NE(volume.record.FileSystemAttributes & FILE_NAMED_STREAMS, 0u);
}

TEST_F(Streams, WritersAtOnceLoseNothing)
{
    constexpr int kThreads = 4, kEach = 50;
    AtOnce(kThreads, [&](int) {
        for (int n = 0; n < kEach; ++n) {
            const NtFile stream = Open("file:log", {.access = kReadWrite, .disposition = FILE_OPEN_IF});
            EXPECT_EQ(WriteAt(stream, -1, "line").status, STATUS_SUCCESS);
        }
    });
    EXPECT_EQ(Attribute("user.DosStream.log:$DATA").size(), kThreads * kEach * 4 + 1u);
}

TEST_F(Streams, OneThatCantBeOpenedIsntMade)
{
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(Open("file:warm", {.disposition = FILE_CREATE}).status, STATUS_SUCCESS);
    const auto used = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}) - 1;
    for (rlim_t room = 0; room < 6; ++room) {
        SCOPED_TRACE(room);
        const rlimit small{static_cast<rlim_t>(used) + room, before.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &small), 0);
        const NtFile stream = Open("file:s" + std::to_string(room), {.disposition = FILE_CREATE});
        EXPECT_EQ(stream.status, STATUS_SUCCESS); // with a raised limit
        EXPECT_EQ(stream.information, FILE_CREATED);
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    }
}

TEST_F(Streams, OfTwoCasesAtOnceOneIsMade)
{
    std::atomic<int> made = 0;
    constexpr int kRounds = 300;
    for (int i = 0; i < kRounds; ++i) {
        AtOnce(2, [&](int which) {
            made +=
                Open(which ? "file:abc" : "file:ABC", {.disposition = FILE_CREATE}).status == STATUS_SUCCESS;
        });
        removexattr(Path("file").c_str(), "user.DosStream.abc:$DATA");
        removexattr(Path("file").c_str(), "user.DosStream.ABC:$DATA");
    }
    EXPECT_EQ(made, kRounds);
}

// A create that is refused while the stream is being deleted leaves none behind.
TEST_F(Streams, ARefusedCreateMakesNothing)
{
    int left = 0;
    for (int i = 0; i < 600; ++i) {
        NtFile doomed = Open(
            "file:s", {.access = kDeletable, .disposition = FILE_OPEN_IF, .options = FILE_DELETE_ON_CLOSE});
        ASSERT_EQ(doomed.status, STATUS_SUCCESS);
        std::atomic<bool> closed{false};
        NTSTATUS status = STATUS_DELETE_PENDING;
        AtOnce(2, [&](int which) {
            if (which == 0) {
                doomed.Close();
                closed = true;
            }
            while (which == 1 && status != STATUS_SUCCESS && !closed)
                status = Open("file:s", {.disposition = FILE_CREATE}).status;
        });
        const bool present = Attribute("user.DosStream.s:$DATA") != "none";
        left += present != (status == STATUS_SUCCESS);
        removexattr(Path("file").c_str(), "user.DosStream.s:$DATA");
    }
    EXPECT_EQ(left, 0);
}

// Made for a stream whose name is too long, a file goes again, but not from under who has opened it
// meanwhile.
TEST_F(Streams, AFileThatAnotherHasOpenedStays)
{
    const std::string tooLong = "new:" + std::string(240, 's');
    int lost = 0;
    for (int i = 0; i < 600; ++i) {
        std::atomic<bool> made{false};
        NtFile file;
        AtOnce(2, [&](int which) {
            if (which == 0) {
                EXPECT_NE(Open(tooLong, {.disposition = FILE_OPEN_IF}).status, STATUS_SUCCESS);
                made = true;
            }
            while (which == 1 && file.status != STATUS_SUCCESS && !made)
                file = Open("new");
        });
        lost += file.status == STATUS_SUCCESS && !Exists("new");
        std::filesystem::remove(Path("new"));
    }
    EXPECT_EQ(lost, 0);
}

TEST_F(StreamsAnywhere, WhereThereAreNoAttributesThereAreNone)
{
    MakeFolder("ram");
    if (mount("fodr-test", Path("ram").c_str(), "ramfs", 0, nullptr) != 0)
        GTEST_SKIP() << "needs to mount";
    MakeFile("ram/file", "x");
    EXPECT_EQ(Open("ram\\file:s").status, STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(Open("ram\\new:s", {.disposition = FILE_CREATE}).status, STATUS_OBJECT_NAME_INVALID);
    EXPECT_FALSE(std::filesystem::exists(Path("ram/new")));
    EXPECT_EQ(Listed(Open("ram\\file")), std::vector<std::string>{"::$DATA 1"});
    EXPECT_EQ(Open("ram\\file", {.access = kReadWrite, .disposition = FILE_OVERWRITE}).status,
              STATUS_SUCCESS);
    umount2(Path("ram").c_str(), MNT_DETACH);
}

} // namespace
} // namespace fodr::nt
