#include "ntposix/NtWords.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace fodr::nt {

namespace {

class Renames : public NtFixture {
protected:
    NtFile Movable(std::string_view name,
                   uint32_t share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE)
    {
        return Open(name, {.access = GENERIC_READ | DELETE_ACCESS | SYNCHRONIZE, .share = share});
    }
    NTSTATUS Move(std::string_view from, std::string_view to, Existing existing = Existing::Keep)
    {
        return Rename(Movable(from), NtPath(to), existing);
    }
    std::string Content(std::string_view name) const
    {
        std::ifstream in(Path(name));
        return {std::istreambuf_iterator<char>(in), {}};
    }
    // The names in the folder of the test, in order.
    std::string Listing() const
    {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(root))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        std::string all;
        for (const std::string &name : names)
            all += name + " ";
        return all;
    }
};

TEST_F(Renames, MoveFilesAndFolders)
{
    MakeFile("a", "A");
    MakeFolder("folder/inner");
    EXPECT_EQ(Move("a", "folder\\inner\\b"), STATUS_SUCCESS);
    EXPECT_EQ(Content("folder/inner/b"), "A");
    EXPECT_EQ(Move("folder", "moved"), STATUS_SUCCESS);
    EXPECT_EQ(Content("moved/inner/b"), "A");
    EXPECT_EQ(Move("MOVED\\INNER", "Inner\\"), STATUS_SUCCESS); // one separator behind a folder
    EXPECT_EQ(Listing(), "Inner moved ");
}

TEST_F(Renames, AreRefusedWithTheirReason)
{
    MakeFile("a");
    MakeFile("b");
    MakeFile("read-only");
    chmod(Path("read-only").c_str(), 0444);
    MakeFolder("folder");
    const struct {
        const char *from;
        const char *to;
        NTSTATUS keeping;
        NTSTATUS replacing;
    } cases[] = {
        {"a", "folder", STATUS_OBJECT_NAME_COLLISION, STATUS_ACCESS_DENIED},
        {"folder", "b", STATUS_OBJECT_NAME_COLLISION, STATUS_ACCESS_DENIED},
        {"a", "read-only", STATUS_OBJECT_NAME_COLLISION, STATUS_ACCESS_DENIED},
        {"a", "none\\a", STATUS_OBJECT_PATH_NOT_FOUND, STATUS_OBJECT_PATH_NOT_FOUND},
        {"a", "b\\a", STATUS_OBJECT_PATH_NOT_FOUND, STATUS_OBJECT_PATH_NOT_FOUND},
        {"folder", "folder\\inside", STATUS_INVALID_PARAMETER, STATUS_INVALID_PARAMETER},
        {"a", "x\\..\\y", STATUS_OBJECT_NAME_INVALID, STATUS_OBJECT_NAME_INVALID},
        {"a", "..\\y", STATUS_OBJECT_NAME_INVALID, STATUS_OBJECT_NAME_INVALID},
        {"a", "new\\", STATUS_OBJECT_NAME_INVALID, STATUS_OBJECT_NAME_INVALID},
        {"a", "n*w", STATUS_OBJECT_NAME_INVALID, STATUS_OBJECT_NAME_INVALID},
        {"a", "a:stream", STATUS_OBJECT_NAME_INVALID, STATUS_OBJECT_NAME_INVALID},
    };
    for (const auto &test : cases) {
        EXPECT_EQ(Move(test.from, test.to), test.keeping) << test.to;
        EXPECT_EQ(Move(test.from, test.to, Existing::Replace), test.replacing) << test.to;
    }
    EXPECT_EQ(Move("a", "B"), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(Rename(Open("a"), NtPath("c")), STATUS_ACCESS_DENIED); // without the right to delete
    EXPECT_EQ(Rename(Movable("a"), u"\\??\\UNC\\server\\share\\a"), STATUS_BAD_NETWORK_PATH);
    EXPECT_EQ(Listing(), "a b folder read-only ");
}

TEST_F(Renames, ReplaceAFileThatNobodyMinds)
{
    MakeFile("new", "new");
    MakeFile("Old", "old");
    {
        NtFile reader = Open("old", {.share = FILE_SHARE_READ | FILE_SHARE_WRITE});
        EXPECT_EQ(Move("new", "old", Existing::Replace), STATUS_ACCESS_DENIED);
        EXPECT_EQ(Content("Old"), "old");
    }
    NtFile sharing = Open("old");
    EXPECT_EQ(Move("new", "old", Existing::Replace), STATUS_SUCCESS);
    EXPECT_EQ(Content("old"), "new");
    EXPECT_EQ(ReadAt(sharing, 0, 9).text, "old");
    EXPECT_EQ(Listing(), "old ");
}

TEST_F(Renames, ChangeTheSpelling)
{
    MakeFile("name");
    MakeFolder("Folder");
    for (Existing existing : {Existing::Keep, Existing::Replace}) {
        EXPECT_EQ(Move("NAME", "Name", existing), STATUS_SUCCESS);
        EXPECT_EQ(Move("folder", "FOLDER", existing), STATUS_SUCCESS);
        EXPECT_EQ(Listing(), "FOLDER Name ");
        EXPECT_EQ(Move("name", "Name", existing), STATUS_SUCCESS); // nothing to do
        EXPECT_EQ(Move("name", "name", existing), STATUS_SUCCESS);
        EXPECT_EQ(Move("folder", "Folder", existing), STATUS_SUCCESS);
        EXPECT_EQ(Listing(), "Folder name ");
    }
}

TEST_F(Renames, OpensKnowTheNewName)
{
    MakeFile("first", "content");
    NtFile mover = Movable("first");
    NtFile deleter = Movable("first");
    EXPECT_EQ(Rename(mover, NtPath(".second")), STATUS_SUCCESS);
    EXPECT_TRUE(BasicOf(deleter).FileAttributes & FILE_ATTRIBUTE_HIDDEN);
    EXPECT_EQ(Rename(deleter, NtPath("third")), STATUS_SUCCESS);
    MakeFile("first", "another");
    EXPECT_EQ(Delete(mover), STATUS_SUCCESS);
    EXPECT_EQ(Rename(deleter, NtPath("fourth")), STATUS_DELETE_PENDING);
    mover.Close();
    deleter.Close();
    EXPECT_EQ(Listing(), "first ");
}

// Linux only: what is open moves with the folder above it.
TEST_F(Renames, WhatIsBelowMovesAlong)
{
    MakeFolder("folder");
    MakeFile("folder/file");
    NtFile below = Movable("folder\\file");
    EXPECT_EQ(Move("folder", "moved"), STATUS_SUCCESS);
    MakeFolder("folder");
    MakeFile("folder/file");
    EXPECT_EQ(Rename(below, NtPath("out")), STATUS_SUCCESS);
    EXPECT_EQ(Delete(below), STATUS_SUCCESS);
    below.Close();
    EXPECT_EQ(Listing(), "folder moved ");
    EXPECT_TRUE(std::filesystem::exists(root / "folder/file"));
}

// Linux only: rename(2) between two links of one file does nothing.
TEST_F(Renames, ALinkOfTheSameFileIsReplacedAsWell)
{
    MakeFile("a", "A");
    std::filesystem::create_hard_link(root / "a", root / "b");
    EXPECT_EQ(Move("a", "b"), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(Move("a", "b", Existing::Replace), STATUS_SUCCESS);
    EXPECT_EQ(Listing(), "b ");
    EXPECT_EQ(Content("b"), "A");
}

} // namespace

} // namespace fodr::nt
