#include "ntposix/NtWords.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sys/mount.h>
#include <thread>

namespace fodr::nt {

namespace {

class Case : public NtFixture {
protected:
    std::string Content(std::string_view name) const
    {
        const NtFile file = Open(name);
        EXPECT_EQ(file.status, STATUS_SUCCESS) << name;
        return ReadAt(file, 0, 100).text;
    }
    ptrdiff_t Count() const { return std::distance(std::filesystem::directory_iterator(root), {}); }
};

TEST_F(Case, IsIgnoredInEveryComponent)
{
    MakeFolder("Some Folder/\xC3\x84rger");
    MakeFile("Some Folder/\xC3\x84rger/Stra\xC3\x9F"
             "e.TXT",
             "content");
    EXPECT_EQ(Content("some folder\\\xC3\xA4RGER\\STRA\xC3\x9F"
                      "E.txt"),
              "content");
    EXPECT_EQ(Content("SOME FOLDER/\xC3\xA4rger/stra\xC3\x9F"
                      "e.txt"),
              "content");
    EXPECT_EQ(Open("some folder\\none\\x").status, STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Open("some folder\\none").status, STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(Case, ACreateMeetsTheFileThatIsThere)
{
    MakeFile("Present", "old");
    EXPECT_EQ(Open("PRESENT", {.disposition = FILE_CREATE}).status, STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(Open("PRESENT", {.disposition = FILE_CREATE, .options = FILE_DIRECTORY_FILE}).status,
              STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(Open("present", {.disposition = FILE_OPEN_IF}).information, FILE_OPENED);
    EXPECT_EQ(Open("pRESENT", {.disposition = FILE_OVERWRITE_IF}).information, FILE_OVERWRITTEN);
    EXPECT_EQ(Count(), 1);
}

// Linux only: both can be there.
TEST_F(Case, TheExactNameWins)
{
    MakeFile("same", "lower");
    MakeFile("SAME", "upper");
    EXPECT_EQ(Content("same"), "lower");
    EXPECT_EQ(Content("SAME"), "upper");
    EXPECT_EQ(Content("Same"), "upper"); // the first in order of bytes, always
}

TEST_F(Case, ChangesByOthersAreSeenAtOnce)
{
    MakeFolder("folder");
    for (int round = 0; round < 200; ++round) {
        EXPECT_EQ(Open("FOLDER\\file").status, STATUS_OBJECT_NAME_NOT_FOUND);
        MakeFile("folder/File", "1");
        EXPECT_EQ(Content("FOLDER\\file"), "1");
        std::filesystem::rename(root / "folder/File", root / "folder/Other");
        EXPECT_EQ(Open("FOLDER\\file").status, STATUS_OBJECT_NAME_NOT_FOUND);
        EXPECT_EQ(Content("FOLDER\\other"), "1");
        std::filesystem::remove(root / "folder/Other");
        EXPECT_EQ(Open("FOLDER\\OTHER").status, STATUS_OBJECT_NAME_NOT_FOUND);
        // Another folder under the same name, perhaps with the same inode.
        std::filesystem::remove(root / "folder");
        MakeFolder("folder");
    }
}

// Where no notice of changes is trusted the time stamps have to do. Linux only; takes the right to mount.
TEST_F(Case, ChangesByOthersAreSeenByTimeStampsToo)
{
    MakeFolder("mount");
    if (mount("fodr-test", Path("mount").c_str(), "hugetlbfs", 0, nullptr) != 0)
        GTEST_SKIP() << "can't mount a hugetlbfs";
    auto there = [this](const char *name) {
        return Open(name, {.access = FILE_READ_ATTRIBUTES | SYNCHRONIZE}).status == STATUS_SUCCESS;
    };
    for (int round = 0; round < 200; ++round) {
        EXPECT_FALSE(there("mount\\file"));
        MakeFile("mount/File");
        EXPECT_TRUE(there("mount\\file"));
        std::filesystem::rename(root / "mount/File", root / "mount/Other");
        EXPECT_FALSE(there("MOUNT\\FILE"));
        EXPECT_TRUE(there("MOUNT\\OTHER"));
        std::filesystem::remove(root / "mount/Other");
    }
    ASSERT_EQ(umount(Path("mount").c_str()), 0);
}

TEST_F(Case, ManyNewFilesAreFoundAgain)
{
    constexpr int kFiles = 1000;
    for (int i = 0; i < kFiles; ++i) {
        const std::string name = "File" + std::to_string(i);
        EXPECT_EQ(Open(name, {.disposition = FILE_CREATE}).information, FILE_CREATED);
        EXPECT_EQ(Open("FILE" + std::to_string(i / 2), {.disposition = FILE_OPEN_IF}).information,
                  FILE_OPENED);
    }
    EXPECT_EQ(Count(), kFiles);
}

// Of many who create the names of one file at a time one wins, and one file comes of it.
TEST_F(Case, OfTwoSpellingsCreatedAtOnceOneWins)
{
    constexpr int kThreads = 4;
    for (int round = 0; round < 50; ++round) {
        std::atomic<int> ready{0};
        std::atomic<int> created{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&, i] {
                std::string name = "name" + std::to_string(round);
                name[static_cast<size_t>(i)] = static_cast<char>(name[static_cast<size_t>(i)] - 'a' + 'A');
                for (++ready; ready < kThreads;)
                    std::this_thread::yield();
                const NtFile file = Open(name, {.disposition = FILE_CREATE});
                EXPECT_TRUE(file.status == STATUS_SUCCESS || file.status == STATUS_OBJECT_NAME_COLLISION);
                created += file.status == STATUS_SUCCESS;
            });
        }
        for (std::thread &thread : threads)
            thread.join();
        EXPECT_EQ(created, 1);
        EXPECT_EQ(Count(), round + 1);
    }
}

} // namespace

} // namespace fodr::nt
