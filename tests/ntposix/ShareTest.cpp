#include "ntposix/NtWords.h"

#include <filesystem>
#include <fstream>

namespace fodr::nt {

namespace {

class Sharing : public NtFixture {
protected:
    NtFile Doomed(std::string_view name) const
    {
        return Open(name, {.access = GENERIC_READ | DELETE_ACCESS | SYNCHRONIZE});
    }
    bool Exists(const char *name) const { return std::filesystem::exists(root / name); }
};

constexpr uint32_t kNone = 0;
constexpr uint32_t kRead = FILE_SHARE_READ;
constexpr uint32_t kWrite = FILE_SHARE_WRITE;
constexpr uint32_t kDelete = FILE_SHARE_DELETE;
constexpr uint32_t kAll = kRead | kWrite | kDelete;

TEST_F(Sharing, EveryRightMustBeSharedByBothSides)
{
    MakeFile("file");
    std::filesystem::create_hard_link(root / "file", root / "other-name");
    constexpr NTSTATUS kConflict = STATUS_SHARING_VIOLATION;
    const struct {
        uint32_t firstAccess, firstShare, access, share;
        NTSTATUS status;
    } cases[] = {
        {FILE_READ_DATA, kRead, FILE_READ_DATA, kRead, STATUS_SUCCESS},
        {FILE_READ_DATA, kNone, FILE_READ_DATA, kAll, kConflict},
        {FILE_READ_DATA, kAll, FILE_READ_DATA, kWrite | kDelete, kConflict},
        {FILE_READ_DATA, kRead, FILE_WRITE_DATA, kAll, kConflict},
        {FILE_READ_DATA, kRead, FILE_APPEND_DATA, kAll, kConflict},
        {FILE_READ_DATA, kRead | kWrite, FILE_WRITE_DATA, kRead, STATUS_SUCCESS},
        {FILE_WRITE_DATA, kAll, FILE_READ_DATA, kRead, kConflict},
        {FILE_WRITE_DATA, kAll, FILE_READ_DATA, kWrite, STATUS_SUCCESS},
        {DELETE_ACCESS, kAll, FILE_READ_DATA, kRead | kWrite, kConflict},
        {FILE_READ_DATA, kRead | kWrite, DELETE_ACCESS, kAll, kConflict},
        {FILE_EXECUTE, kWrite, FILE_READ_DATA, kAll, kConflict},
        // Who wants attributes alone neither minds nor is minded.
        {FILE_READ_DATA, kNone, FILE_READ_ATTRIBUTES, kNone, STATUS_SUCCESS},
        {FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES, kNone, GENERIC_ALL, kNone, STATUS_SUCCESS},
    };
    for (const auto &test : cases) {
        NtFile first = Open("file", {.access = test.firstAccess | SYNCHRONIZE, .share = test.firstShare});
        ASSERT_EQ(first.status, STATUS_SUCCESS);
        for (const char *name : {"file", "FILE", "other-name"}) {
            EXPECT_EQ(Open(name, {.access = test.access | SYNCHRONIZE, .share = test.share}).status,
                      test.status)
                << name << std::hex << " first " << test.firstAccess << "/" << test.firstShare << " then "
                << test.access << "/" << test.share;
        }
        first.Close();
        EXPECT_EQ(Open("file", {.access = GENERIC_ALL, .share = kNone}).status, STATUS_SUCCESS);
    }
}

TEST_F(Sharing, AnOverwriteIsAWrite)
{
    MakeFile("file", "content");
    NtFile reader = Open("file", {.share = kRead});
    const OpenOptions overwrite{.access = FILE_READ_ATTRIBUTES | SYNCHRONIZE, .disposition = FILE_OVERWRITE};
    EXPECT_EQ(Open("file", overwrite).status, STATUS_SHARING_VIOLATION);
    EXPECT_EQ(ReadAt(reader, 0, 9).text, "content");
    reader.Close();
    NtFile overwriter = Open("file", overwrite);
    EXPECT_EQ(overwriter.status, STATUS_SUCCESS);
    // Afterwards it is an open for attributes.
    EXPECT_EQ(Open("file", {.access = GENERIC_ALL, .share = kNone}).status, STATUS_SUCCESS);
}

TEST_F(Sharing, ADeletionWaitsForTheLastHandle)
{
    MakeFile("file", "content");
    NtFile reader = Open("file");
    NtFile deleter = Doomed("file");
    EXPECT_EQ(Delete(deleter), STATUS_SUCCESS);
    EXPECT_EQ(StandardOf(reader).DeletePending, 1);
    EXPECT_EQ(StandardOf(reader).NumberOfLinks, 0u);
    EXPECT_EQ(Open("file", {.access = FILE_READ_ATTRIBUTES | SYNCHRONIZE}).status, STATUS_DELETE_PENDING);
    EXPECT_EQ(Open("file", {.disposition = FILE_CREATE}).status, STATUS_DELETE_PENDING);
    deleter.Close();
    EXPECT_TRUE(Exists("file"));
    EXPECT_EQ(ReadAt(reader, 0, 9).text, "content");
    reader.Close();
    EXPECT_FALSE(Exists("file"));
    EXPECT_EQ(Open("file", {.disposition = FILE_CREATE}).status, STATUS_SUCCESS);
}

TEST_F(Sharing, ADeletionCanBeTakenBack)
{
    MakeFile("file");
    NtFile reader = Open("file");
    NtFile deleter = Doomed("file");
    EXPECT_EQ(Delete(deleter), STATUS_SUCCESS);
    EXPECT_EQ(Delete(deleter, false), STATUS_SUCCESS);
    EXPECT_EQ(StandardOf(reader).DeletePending, 0);
    EXPECT_EQ(Open("file").status, STATUS_SUCCESS);
    deleter.Close();
    reader.Close();
    EXPECT_TRUE(Exists("file"));
}

TEST_F(Sharing, NotEverythingCanBeDeleted)
{
    MakeFolder("full/inner");
    MakeFile("read-only");
    chmod(Path("read-only").c_str(), 0444);
    MakeFile("file");
    EXPECT_EQ(Delete(Doomed("full")), STATUS_DIRECTORY_NOT_EMPTY);
    EXPECT_EQ(Delete(Doomed("read-only")), STATUS_CANNOT_DELETE);
    EXPECT_EQ(Delete(Open("file")), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Delete(NtFile(u"\\??\\/", {.access = DELETE_ACCESS | SYNCHRONIZE})), STATUS_CANNOT_DELETE);
    EXPECT_EQ(Delete(Doomed("full\\inner")), STATUS_SUCCESS);
    EXPECT_EQ(Delete(Doomed("full")), STATUS_SUCCESS);
    EXPECT_FALSE(Exists("full"));
}

// Linux only: other processes rename and replace what is open here.
TEST_F(Sharing, ADeletionNeverMeetsAnotherFile)
{
    MakeFile("file", "doomed");
    MakeFile("saved", "successor");
    NtFile deleter = Doomed("file");
    EXPECT_EQ(Delete(deleter), STATUS_SUCCESS);
    std::filesystem::rename(root / "file", root / "elsewhere");
    std::filesystem::rename(root / "saved", root / "file");
    deleter.Close();
    EXPECT_TRUE(Exists("file"));
    EXPECT_FALSE(Exists("elsewhere"));

    NtFile gone = Doomed("file");
    std::filesystem::remove(root / "file");
    EXPECT_EQ(Delete(gone), STATUS_SUCCESS);
    MakeFile("file", "third");
    gone.Close();
    EXPECT_TRUE(Exists("file"));
}

TEST_F(Sharing, EachNameOfAFileIsDeletedByItself)
{
    MakeFile("file");
    std::filesystem::create_hard_link(root / "file", root / "other");
    NtFile kept = Open("file");
    NtFile deleter = Doomed("other");
    EXPECT_EQ(Delete(deleter), STATUS_SUCCESS);
    EXPECT_EQ(Open("file").status, STATUS_SUCCESS);
    EXPECT_EQ(Open("other").status, STATUS_DELETE_PENDING);
    deleter.Close();
    EXPECT_FALSE(Exists("other"));
    EXPECT_TRUE(Exists("file"));
}

} // namespace

} // namespace fodr::nt
