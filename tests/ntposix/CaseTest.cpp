#include "ntposix/NtWords.h"

#include <atomic>
#include <sys/mount.h>

namespace fodr::nt {

namespace {

class Case : public NtFixture {
protected:
    std::string Read(std::string_view name) const { return ReadAt(Open(name), 0, 100).text; }
    // Nobody but others touches the file in "Folder".
    void ExpectChangesByOthersToBeSeen() const
    {
        auto there = [this](const char *name) {
            const NTSTATUS status = Open(name, {.access = FILE_READ_ATTRIBUTES}).status;
            EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_OBJECT_NAME_NOT_FOUND) << name;
            return status == STATUS_SUCCESS;
        };
        EXPECT_FALSE(there("FOLDER\\file"));
        MakeFile("Folder/File");
        EXPECT_TRUE(there("Folder\\file"));
        OthersMove("Folder/File", "Folder/Other");
        EXPECT_FALSE(there("FOLDER\\FILE"));
        EXPECT_TRUE(there("FOLDER\\other"));
        std::filesystem::remove(root / "Folder/Other");
        EXPECT_FALSE(there("FOLDER\\OTHER"));
    }
};

TEST_F(Case, IsIgnoredInEveryComponent)
{
    MakeFolder("Some Folder/\u00C4rger");
    MakeFile("Some Folder/\u00C4rger/Stra\u00DFe.TXT", "content");
    EXPECT_EQ(Read("some folder\\\u00E4RGER\\STRA\u00DFE.txt"), "content");
    EXPECT_EQ(Read("SOME FOLDER/\u00E4rger/stra\u00DFe.txt"), "content");
    EXPECT_EQ(Open("some folder\\none\\x").status, STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Open("some folder\\none").status, STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(Case, ACreateMeetsTheFileThatIsThere)
{
    MakeFile("Present", "old");
    for (const uint32_t options : {0u, FILE_DIRECTORY_FILE})
        EXPECT_EQ(Open("PRESENT", {.disposition = FILE_CREATE, .options = options}).status,
                  STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(Open("present", {.disposition = FILE_OPEN_IF}).information, FILE_OPENED);
    EXPECT_EQ(Open("pRESENT", {.disposition = FILE_OVERWRITE_IF}).information, FILE_OVERWRITTEN);
    EXPECT_EQ(Listing(), NameSet{"Present"});
}

// Linux only: both can be there.
TEST_F(Case, TheExactNameWins)
{
    MakeFile("same", "lower");
    MakeFile("SAME", "upper");
    EXPECT_EQ(Read("same"), "lower");
    EXPECT_EQ(Read("SAME"), "upper");
    EXPECT_EQ(Read("Same"), "upper"); // the first in order of bytes, always
}

TEST_F(Case, ChangesByOthersAreSeenAtOnce)
{
    for (int round = 0; round < 200; ++round) {
        MakeFolder("Folder");
        ExpectChangesByOthersToBeSeen();
        // Another folder under the same name follows, perhaps with the same inode.
        std::filesystem::remove(root / "Folder");
    }
}

// Where no notice of changes is trusted the time stamps have to do. Linux only; takes the right to mount.
TEST_F(Case, ChangesByOthersAreSeenByTimeStampsToo)
{
    MakeFolder("Folder");
    if (mount("fodr-test", Path("Folder").c_str(), "hugetlbfs", 0, nullptr) != 0)
        GTEST_SKIP() << "can't mount a hugetlbfs";
    for (int round = 0; round < 200; ++round)
        ExpectChangesByOthersToBeSeen();
    ASSERT_EQ(umount(Path("Folder").c_str()), 0);
}

// Of many who create the names of one file at a time one wins, and one file comes of it.
TEST_F(Case, OfTwoSpellingsCreatedAtOnceOneWins)
{
    for (size_t round = 0; round < 50; ++round) {
        std::atomic<int> created{0};
        AtOnce(4, [&](int i) {
            std::string name = "name" + std::to_string(round);
            name[static_cast<size_t>(i)] = "NAME"[i];
            const NtFile file = Open(name, {.disposition = FILE_CREATE});
            EXPECT_TRUE(file.status == STATUS_SUCCESS || file.status == STATUS_OBJECT_NAME_COLLISION);
            created += file.status == STATUS_SUCCESS;
        });
        EXPECT_EQ(created, 1);
        EXPECT_EQ(Listing().size(), round + 1);
    }
}

} // namespace

} // namespace fodr::nt
