#include "ntposix/NtWords.h"

namespace fodr::nt {

namespace {

class Renames : public NtFixture {
protected:
    NTSTATUS Move(std::string_view from, std::string_view to, Existing existing = Existing::Keep) const
    {
        return Rename(Doomed(from), NtPath(to), existing);
    }
};

TEST_F(Renames, MoveFilesAndFolders)
{
    MakeFile("a", "A");
    MakeFolder("folder/inner");
    EXPECT_EQ(Move("a", "folder\\inner\\b"), STATUS_SUCCESS);
    EXPECT_EQ(Move("folder", "moved"), STATUS_SUCCESS);
    EXPECT_EQ(Move("MOVED\\INNER", "Inner\\"), STATUS_SUCCESS); // one separator behind a folder
    EXPECT_EQ(Content("Inner/b"), "A");
    EXPECT_EQ(Listing(), (NameSet{"Inner", "moved"}));
}

TEST_F(Renames, AreRefusedWithTheirReason)
{
    MakeFile("a");
    MakeFile("b");
    MakeReadOnly("read-only");
    MakeFolder("folder");
    const struct {
        const char *from, *to;
        NTSTATUS keeping;
        NTSTATUS replacing = keeping;
    } cases[] = {
        {"a", "folder", STATUS_OBJECT_NAME_COLLISION, STATUS_ACCESS_DENIED},
        {"folder", "b", STATUS_OBJECT_NAME_COLLISION, STATUS_ACCESS_DENIED},
        {"a", "read-only", STATUS_OBJECT_NAME_COLLISION, STATUS_ACCESS_DENIED},
        {"a", "none\\a", STATUS_OBJECT_PATH_NOT_FOUND},
        {"a", "b\\a", STATUS_OBJECT_PATH_NOT_FOUND},
        {"folder", "folder\\inside", STATUS_INVALID_PARAMETER},
        {"a", "..\\y", STATUS_OBJECT_NAME_INVALID},
        {"a", "new\\", STATUS_OBJECT_NAME_INVALID},
        {"a", "a:stream", STATUS_OBJECT_NAME_INVALID},
    };
    for (const auto &test : cases) {
        EXPECT_EQ(Move(test.from, test.to), test.keeping) << test.to;
        EXPECT_EQ(Move(test.from, test.to, Existing::Replace), test.replacing) << test.to;
    }
    EXPECT_EQ(Move("a", "B"), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(Rename(Open("a"), NtPath("c")), STATUS_ACCESS_DENIED); // without the right to delete
    EXPECT_EQ(Rename(Doomed("a"), u"\\??\\UNC\\server\\share\\a"), STATUS_BAD_NETWORK_PATH);
    EXPECT_EQ(Listing(), (NameSet{"a", "b", "folder", "read-only"}));
}

TEST_F(Renames, ReplaceAFileThatNobodyHasOpen)
{
    MakeFile("new", "new");
    MakeFile("Old", "old");
    for (const OpenOptions &how : {OpenOptions{}, OpenOptions{.access = FILE_READ_ATTRIBUTES}}) {
        const NtFile reader = Open("old", how);
        EXPECT_EQ(Move("new", "old", Existing::Replace), STATUS_ACCESS_DENIED);
        EXPECT_EQ(Content("Old"), "old");
    }
    EXPECT_EQ(Move("new", "old", Existing::Replace), STATUS_SUCCESS);
    EXPECT_EQ(Content("old"), "new");
    // Linux only: rename(2) between two links of one file does nothing.
    std::filesystem::create_hard_link(root / "old", root / "link");
    EXPECT_EQ(Move("old", "link"), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(Move("old", "link", Existing::Replace), STATUS_SUCCESS);
    EXPECT_EQ(Content("link"), "new");
    EXPECT_EQ(Listing(), NameSet{"link"});
}

TEST_F(Renames, ChangeTheSpelling)
{
    MakeFile("name");
    MakeFolder("Folder");
    for (Existing existing : {Existing::Keep, Existing::Replace}) {
        EXPECT_EQ(Move("NAME", "Name", existing), STATUS_SUCCESS);
        EXPECT_EQ(Move("folder", "FOLDER", existing), STATUS_SUCCESS);
        EXPECT_EQ(Listing(), (NameSet{"FOLDER", "Name"}));
        EXPECT_EQ(Move("name", "Name", existing), STATUS_SUCCESS); // nothing to do
        EXPECT_EQ(Move("name", "name", existing), STATUS_SUCCESS);
        EXPECT_EQ(Move("folder", "Folder", existing), STATUS_SUCCESS);
        EXPECT_EQ(Listing(), (NameSet{"Folder", "name"}));
    }
}

TEST_F(Renames, OpensKnowTheNewName)
{
    MakeFile("first", "content");
    NtFile mover = Doomed("first");
    NtFile deleter = Doomed("first");
    EXPECT_EQ(Rename(mover, NtPath(".second")), STATUS_SUCCESS);
    EXPECT_TRUE(BasicOf(deleter).FileAttributes & FILE_ATTRIBUTE_HIDDEN);
    EXPECT_EQ(Rename(deleter, NtPath("third")), STATUS_SUCCESS);
    MakeFile("first", "another");
    EXPECT_EQ(Delete(mover), STATUS_SUCCESS);
    EXPECT_EQ(Rename(deleter, NtPath("fourth")), STATUS_DELETE_PENDING);
    mover.Close();
    deleter.Close();
    EXPECT_EQ(Listing(), NameSet{"first"});
}

// Linux only: what is open moves with the folder above it.
TEST_F(Renames, WhatIsBelowMovesAlong)
{
    MakeFolder("folder");
    MakeFile("folder/file");
    NtFile below = Doomed("folder\\file");
    EXPECT_EQ(Move("folder", "moved"), STATUS_SUCCESS);
    MakeFolder("folder");
    MakeFile("folder/file");
    EXPECT_EQ(Rename(below, NtPath("out")), STATUS_SUCCESS);
    EXPECT_EQ(Delete(below), STATUS_SUCCESS);
    below.Close();
    EXPECT_EQ(Listing(), (NameSet{"folder", "moved"}));
    EXPECT_TRUE(Exists("folder/file"));
}

} // namespace

} // namespace fodr::nt
