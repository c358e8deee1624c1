#include "ntposix/NtWords.h"

namespace fodr::nt {

namespace {

using Sharing = NtFixture;

constexpr uint32_t kNone = 0, kRead = FILE_SHARE_READ, kWrite = FILE_SHARE_WRITE, kDelete = FILE_SHARE_DELETE,
                   kAll = kRead | kWrite | kDelete;

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
        NtFile first = Open("file", {.access = test.firstAccess, .share = test.firstShare});
        ASSERT_EQ(first.status, STATUS_SUCCESS);
        for (const char *name : {"file", "FILE", "other-name"})
            EXPECT_EQ(Open(name, {.access = test.access, .share = test.share}).status, test.status)
                << name << " in row " << &test - cases;
        first.Close();
        EXPECT_EQ(Open("file", {.access = GENERIC_ALL, .share = kNone}).status, STATUS_SUCCESS);
    }
}

TEST_F(Sharing, AnOverwriteIsAWrite)
{
    MakeFile("file", "content");
    NtFile reader = Open("file", {.share = kRead});
    const OpenOptions overwrite{.access = FILE_READ_ATTRIBUTES, .disposition = FILE_OVERWRITE};
    EXPECT_EQ(Open("file", overwrite).status, STATUS_SHARING_VIOLATION);
    EXPECT_EQ(ReadAt(reader, 0, 9).text, "content");
    reader.Close();
    const NtFile overwriter = Open("file", overwrite);
    EXPECT_EQ(overwriter.status, STATUS_SUCCESS);
    // Afterwards it is an open for attributes.
    EXPECT_EQ(Open("file", {.access = GENERIC_ALL, .share = kNone}).status, STATUS_SUCCESS);
}

TEST_F(Sharing, ADeletionWaitsForTheLastHandleAndCanBeTakenBack)
{
    MakeFile("file", "content");
    NtFile reader = Open("file");
    for (const bool takenBack : {true, false}) {
        NtFile deleter = Doomed("file");
        EXPECT_EQ(Delete(deleter), STATUS_SUCCESS);
        EXPECT_EQ(StandardOf(reader).DeletePending, 1);
        EXPECT_EQ(StandardOf(reader).NumberOfLinks, 0u);
        EXPECT_EQ(Open("file", {.access = FILE_READ_ATTRIBUTES}).status, STATUS_DELETE_PENDING);
        EXPECT_EQ(Open("file", {.disposition = FILE_CREATE}).status, STATUS_DELETE_PENDING);
        if (takenBack) {
            EXPECT_EQ(Delete(deleter, false), STATUS_SUCCESS);
        }
        deleter.Close();
        EXPECT_EQ(StandardOf(reader).DeletePending, !takenBack);
        EXPECT_EQ(Open("file").status, takenBack ? STATUS_SUCCESS : STATUS_DELETE_PENDING);
        EXPECT_EQ(ReadAt(reader, 0, 9).text, "content");
        reader.Close();
        EXPECT_EQ(Exists("file"), takenBack);
        reader = Open("file", {.disposition = FILE_OPEN_IF});
    }
    EXPECT_EQ(reader.information, FILE_CREATED);
}

TEST_F(Sharing, NotEverythingCanBeDeleted)
{
    MakeFolder("full/inner");
    MakeReadOnly("read-only");
    MakeFile("file");
    EXPECT_EQ(Delete(Doomed("full")), STATUS_DIRECTORY_NOT_EMPTY);
    EXPECT_EQ(Delete(Doomed("read-only")), STATUS_CANNOT_DELETE);
    EXPECT_EQ(Delete(Open("file")), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Delete(NtFile(u"\\??\\/", {.access = DELETE_ACCESS})), STATUS_CANNOT_DELETE);
    EXPECT_EQ(Delete(Doomed("full\\inner")), STATUS_SUCCESS);
    EXPECT_EQ(Delete(Doomed("full")), STATUS_SUCCESS);
    EXPECT_EQ(Listing(), (NameSet{"file", "read-only"}));
}

// Linux only: other processes rename and replace what is open here.
TEST_F(Sharing, ADeletionNeverMeetsAnotherFile)
{
    MakeFile("file", "doomed");
    MakeFile("saved", "successor");
    NtFile deleter = Doomed("file");
    EXPECT_EQ(Delete(deleter), STATUS_SUCCESS);
    OthersMove("file", "elsewhere");
    OthersMove("saved", "file");
    deleter.Close();
    EXPECT_EQ(Listing(), NameSet{"file"});

    NtFile gone = Doomed("file");
    std::filesystem::remove(root / "file");
    EXPECT_EQ(Delete(gone), STATUS_SUCCESS);
    MakeFile("file", "third");
    gone.Close();
    EXPECT_EQ(Listing(), NameSet{"file"});
}

TEST_F(Sharing, EachNameOfAFileIsDeletedByItself)
{
    MakeFile("file");
    std::filesystem::create_hard_link(root / "file", root / "other");
    const NtFile kept = Open("file");
    NtFile deleter = Doomed("other");
    EXPECT_EQ(Delete(deleter), STATUS_SUCCESS);
    EXPECT_EQ(Open("file").status, STATUS_SUCCESS);
    EXPECT_EQ(Open("other").status, STATUS_DELETE_PENDING);
    deleter.Close();
    EXPECT_EQ(Listing(), NameSet{"file"});
}

} // namespace

} // namespace fodr::nt
