// Names that go at once and renames as rename(2), whatever is open.
#include "ntposix/NtWords.h"

namespace fodr::nt {

namespace {

class PosixNames : public NtFixture {
protected:
    void MakeLink(const char *name, const char *other) const
    {
        std::filesystem::create_hard_link(root / name, root / other);
    }
    NTSTATUS Remove(std::string_view name) const { return DeleteNow(Doomed(name)); }
    // From a new handle into a new one.
    NTSTATUS Move(const char *from, const char *folder, std::u16string_view leaf,
                  uint32_t flags = kAsPosix) const
    {
        return RenameInto(Doomed(from), Folder(folder), leaf, flags);
    }
};

TEST_F(PosixNames, GoAtOnceAndWhatIsOpenGoesOn)
{
    MakeFile("file", "content");
    NtFile writer = Open("file", {.access = kReadWrite});
    NtFile marked = Doomed("FILE");
    NtFile deleter = Doomed("file");
    EXPECT_EQ(Delete(marked), STATUS_SUCCESS); // for its last close, which comes too late
    EXPECT_EQ(DeleteNow(deleter), STATUS_SUCCESS);
    EXPECT_FALSE(Exists("file"));
    EXPECT_EQ(StandardOf(writer).NumberOfLinks, 0u);
    EXPECT_EQ(DeleteNow(deleter), STATUS_FILE_DELETED);
    EXPECT_EQ(Rename(marked, NtPath("other")), STATUS_FILE_DELETED);

    NtFile successor = Open("file", {.access = kReadWrite | DELETE_ACCESS, .disposition = FILE_CREATE});
    ASSERT_EQ(successor.status, STATUS_SUCCESS);
    EXPECT_EQ(WriteAt(successor, 0, "new").status, STATUS_SUCCESS);
    EXPECT_EQ(WriteAt(writer, 7, "!").status, STATUS_SUCCESS);
    EXPECT_EQ(ReadAt(writer, 0, 99).text, "content!");
    EXPECT_EQ(Set(writer, FileEndOfFileInformation, FILE_END_OF_FILE_INFORMATION{3}), STATUS_SUCCESS);
    EXPECT_EQ(StandardOf(writer).EndOfFile, 3);
    for (NtFile *file : {&deleter, &marked, &writer, &successor})
        EXPECT_EQ(file->Close(), STATUS_SUCCESS);
    EXPECT_EQ(Listing(), NameSet{"file"});
    EXPECT_EQ(Content("file"), "new");
}

// The name that was opened, though the file has others or is given that one again.
TEST_F(PosixNames, GoAloneOfSeveral)
{
    MakeFile("a");
    MakeLink("a", "b");
    NtFile ofA = Doomed("a");
    NtFile alsoOfA = Doomed("a");
    NtFile ofB = Doomed("b");
    EXPECT_EQ(Delete(alsoOfA), STATUS_SUCCESS);
    EXPECT_EQ(DeleteNow(ofA), STATUS_SUCCESS);
    EXPECT_EQ(Listing(), NameSet{"b"});
    MakeLink("b", "a");
    EXPECT_EQ(DeleteNow(alsoOfA), STATUS_FILE_DELETED);
    EXPECT_EQ(Delete(alsoOfA), STATUS_SUCCESS); // which is done
    EXPECT_EQ(RenameInto(ofA, Folder(""), u"c"), STATUS_FILE_DELETED);
    alsoOfA.Close();
    ofA.Close();
    EXPECT_EQ(Listing(), (NameSet{"a", "b"}));
    EXPECT_EQ(DeleteNow(ofB), STATUS_SUCCESS);
    EXPECT_EQ(Listing(), NameSet{"a"});
}

// A folder above was renamed and another one has its name, with a link of the same file in it.
TEST_F(PosixNames, AreTheFilesOwnWhereTheFolderMoved)
{
    for (const bool rename : {false, true}) {
        MakeFolder("folder");
        MakeFile("folder/file");
        NtFile file = Doomed("folder\\file");
        OthersMove("folder", "moved");
        MakeFolder("folder");
        MakeLink("moved/file", "folder/file");
        EXPECT_EQ(rename ? Rename(file, NtPath("out")) : DeleteNow(file), STATUS_SUCCESS);
        EXPECT_FALSE(Exists("moved/file"));
        EXPECT_TRUE(Exists("folder/file"));
        std::filesystem::remove_all(root / "folder");
        std::filesystem::remove_all(root / "moved");
    }
}

TEST_F(PosixNames, OfFoldersGoAtOnce)
{
    MakeFolder("folder/inner");
    EXPECT_EQ(Remove("folder"), STATUS_DIRECTORY_NOT_EMPTY);
    EXPECT_EQ(Remove("folder\\inner"), STATUS_SUCCESS);
    const NtFile watched = Folder("folder");
    auto watching =
        std::async(std::launch::async, [&] { return Notify(watched, FILE_NOTIFY_CHANGE_FILE_NAME); });
    EXPECT_EQ(Remove("folder"), STATUS_SUCCESS);
    EXPECT_FALSE(Exists("folder"));
    EXPECT_EQ(watching.get(), STATUS_DELETE_PENDING);
    MakeFolder("folder");
    MakeFile("folder/new");
    EXPECT_EQ(List(watched, {.pattern = u"*", .restart = true}).names, (NameList{".", ".."}));
    EXPECT_EQ(List(watched).status, STATUS_NO_MORE_FILES);
}

TEST_F(PosixNames, FlagsOfADeletion)
{
    constexpr uint32_t kDelete = FILE_DISPOSITION_DELETE, kNow = FILE_DISPOSITION_POSIX_SEMANTICS,
                       kOnClose = FILE_DISPOSITION_ON_CLOSE,
                       kAlso = FILE_DISPOSITION_IGNORE_READONLY_ATTRIBUTE;
    const struct {
        uint32_t flags;
        bool readOnly;
        NTSTATUS status;
        bool after, afterClose; // whether the name is there
    } cases[] = {
        {kDelete | kNow, false, STATUS_SUCCESS, false, false},
        {kDelete | kNow, true, STATUS_CANNOT_DELETE, true, true},
        {kDelete | kNow | kAlso, true, STATUS_SUCCESS, false, false},
        {kDelete, false, STATUS_SUCCESS, true, false},
        {kDelete, true, STATUS_CANNOT_DELETE, true, true},
        {kDelete | kAlso, true, STATUS_SUCCESS, true, false},
        {kDelete | kOnClose, false, STATUS_SUCCESS, true, false},
        {kDelete | kOnClose | kNow, true, STATUS_CANNOT_DELETE, true, true},
        {kNow, false, STATUS_SUCCESS, true, true},
        {0, true, STATUS_SUCCESS, true, true},
    };
    for (const auto &test : cases) {
        test.readOnly ? MakeReadOnly("file") : MakeFile("file");
        NtFile file = Doomed("file");
        EXPECT_EQ(DeleteWith(file, test.flags), test.status) << test.flags;
        EXPECT_EQ(Exists("file"), test.after) << test.flags;
        file.Close();
        EXPECT_EQ(Exists("file"), test.afterClose) << test.flags;
        std::filesystem::remove(root / "file");
    }
    MakeFile("file");
    NtFile file = Doomed("file");
    EXPECT_EQ(DeleteNow(Open("file")), STATUS_ACCESS_DENIED);
    for (const uint32_t flag : {0u, kOnClose}) {
        EXPECT_EQ(DeleteWith(file, kDelete | flag), STATUS_SUCCESS);
        EXPECT_EQ(DeleteWith(file, flag), STATUS_SUCCESS); // taken back
    }
    file.Close();
    EXPECT_TRUE(Exists("file"));
}

TEST_F(PosixNames, AreReplacedAsByRename)
{
    MakeFolder("to");
    MakeFolder("from/inner");
    MakeFile("new", "new");
    MakeFile("to/old", "old");
    MakeReadOnly("to/read-only");
    MakeFile("to/Case");
    MakeFolder("to/full/inner");
    MakeFolder("to/empty");
    const struct {
        const char *from;
        const char16_t *to;
        uint32_t flags;
        NTSTATUS status;
    } cases[] = {
        {"new", u"old", 0, STATUS_OBJECT_NAME_COLLISION},
        {"new", u"old", FILE_RENAME_POSIX_SEMANTICS, STATUS_OBJECT_NAME_COLLISION},
        {"new", u"old", FILE_RENAME_REPLACE_IF_EXISTS, STATUS_ACCESS_DENIED}, // it is open
        {"new", u"read-only", kAsPosix, STATUS_ACCESS_DENIED},
        {"new", u"case", kAsPosix, STATUS_OBJECT_NAME_COLLISION},
        {"new", u"case", 0, STATUS_OBJECT_NAME_COLLISION},
        {"new", u"full", kAsPosix, STATUS_FILE_IS_A_DIRECTORY},
        {"from", u"old", kAsPosix, STATUS_NOT_A_DIRECTORY},
        {"from", u"full", kAsPosix, STATUS_DIRECTORY_NOT_EMPTY},
        {"from", u"empty", FILE_RENAME_REPLACE_IF_EXISTS, STATUS_ACCESS_DENIED},
        {"to", u"inside", kAsPosix, STATUS_INVALID_PARAMETER},
        {"to", u"inside", 0, STATUS_INVALID_PARAMETER},
        {"new", u"", kAsPosix, STATUS_INFO_LENGTH_MISMATCH},
        {"new", u".", kAsPosix, STATUS_OBJECT_NAME_INVALID},
        {"new", u"..", kAsPosix, STATUS_OBJECT_NAME_INVALID},
        {"new", u"a\\b", kAsPosix, STATUS_OBJECT_NAME_INVALID},
        {"new", u"a/b", kAsPosix, STATUS_OBJECT_NAME_INVALID},
        {"new", u"a:b", kAsPosix, STATUS_OBJECT_NAME_INVALID},
        {"new", u"old", kAsPosix, STATUS_SUCCESS},
        {"to\\old", u"read-only", kAsPosix | FILE_RENAME_IGNORE_READONLY_ATTRIBUTE, STATUS_SUCCESS},
        {"from", u"empty", kAsPosix, STATUS_SUCCESS},
        {"to\\empty", u"Full", 0, STATUS_OBJECT_NAME_COLLISION},
        {"to\\empty", u"free", 0, STATUS_SUCCESS},
        {"to\\free", u"Free", kAsPosix, STATUS_SUCCESS},
    };
    const NtFile old = Open("to\\old");
    const NtFile empty = Folder("to\\empty");
    auto watching =
        std::async(std::launch::async, [&] { return Notify(empty, FILE_NOTIFY_CHANGE_FILE_NAME); });
    for (const auto &test : cases)
        EXPECT_EQ(Move(test.from, "to", test.to, test.flags), test.status)
            << test.from << " " << Utf8(test.to);
    EXPECT_EQ(watching.get(), STATUS_DELETE_PENDING);
    EXPECT_EQ(ReadAt(old, 0, 9).text, "old");
    EXPECT_EQ(Content("to/read-only"), "new");
    EXPECT_TRUE(Exists("to/Free/inner"));
    EXPECT_EQ(Listing(), NameSet{"to"});

    MakeFile("file");
    const NtFile file = Doomed("file");
    EXPECT_EQ(RenameInto(file, nullptr, u"x"), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RenameInto(file, file, u"x"), STATUS_NOT_A_DIRECTORY);
    EXPECT_EQ(RenameInto(file, reinterpret_cast<HANDLE>(uintptr_t{0x7FFFFFF8}), u"x"), STATUS_INVALID_HANDLE);
    EXPECT_EQ(RenameInto(Open("file"), Folder("to"), u"x"), STATUS_ACCESS_DENIED);
    const NtFile removed = Folder("to\\full\\inner");
    std::filesystem::remove(root / "to/full/inner");
    EXPECT_EQ(RenameInto(file, removed, u"x"), STATUS_OBJECT_PATH_NOT_FOUND);
}

TEST_F(PosixNames, OtherLinksAndMarksAreLeftAlone)
{
    MakeFile("a", "file");
    MakeLink("a", "b");
    EXPECT_EQ(Move("a", "", u"b"), STATUS_SUCCESS); // as rename(2), which does nothing
    EXPECT_EQ(Listing(), (NameSet{"a", "b"}));
    EXPECT_EQ(Move("a", "", u"b", FILE_RENAME_REPLACE_IF_EXISTS), STATUS_SUCCESS);
    EXPECT_EQ(Listing(), NameSet{"b"});
    // What is replaced was to go with its last handle, and is gone.
    NtFile doomed = Doomed("b");
    EXPECT_EQ(Delete(doomed), STATUS_SUCCESS);
    MakeFile("new");
    NtFile mover = Doomed("new");
    EXPECT_EQ(RenameInto(mover, Folder(""), u"b"), STATUS_SUCCESS);
    doomed.Close();
    EXPECT_EQ(Listing(), NameSet{"b"});
    // The open file is known by its new name.
    EXPECT_EQ(RenameInto(mover, Folder(""), u".c"), STATUS_SUCCESS);
    EXPECT_TRUE(BasicOf(mover).FileAttributes & FILE_ATTRIBUTE_HIDDEN);
    EXPECT_EQ(DeleteNow(mover), STATUS_SUCCESS);
    EXPECT_EQ(Listing(), NameSet{});
}

TEST_F(PosixNames, OfAShareStayInIt)
{
    const struct {
        CaseRule rule;
        NTSTATUS byPath, byHandle; // of a rename onto another case of a name
    } cases[] = {
        {CaseRule::AnyCase, STATUS_SUCCESS, STATUS_OBJECT_NAME_COLLISION},
        {CaseRule::AnyCaseNoMerge, STATUS_OBJECT_NAME_COLLISION, STATUS_OBJECT_NAME_COLLISION},
        {CaseRule::Exact, STATUS_SUCCESS, STATUS_SUCCESS},
    };
    for (const auto &test : cases) {
        MakeFolder("share/inner");
        for (const char *name : {"share/file", "share/Other", "share/moved"})
            MakeFile(name, name);
        const ShareRoot share(NtPath("share"), ShareRules{.names = test.rule});
        const NtFile folder = Open("share", {.access = GENERIC_READ | DELETE_ACCESS});
        EXPECT_EQ(DeleteNow(folder), STATUS_CANNOT_DELETE);
        EXPECT_EQ(RenameInto(folder, folder, u"x"), STATUS_ACCESS_DENIED);
        const NtFile moved = Doomed("share\\moved");
        OthersMove("share/moved", "outside");
        EXPECT_EQ(DeleteNow(moved), STATUS_FILE_DELETED);
        EXPECT_EQ(RenameInto(moved, folder, u"back"), STATUS_FILE_DELETED);
        EXPECT_TRUE(Exists("outside"));
        const NtFile inner = Folder("share\\inner");
        EXPECT_EQ(RenameInto(Doomed("share\\file"), inner, u"file"), STATUS_SUCCESS);
        OthersMove("share/inner", "taken out");
        MakeFile("share/file");
        EXPECT_EQ(RenameInto(Doomed("share\\file"), inner, u"x"), STATUS_OBJECT_PATH_NOT_FOUND);
        EXPECT_FALSE(Exists("taken out/x"));
        std::filesystem::remove_all(root / "taken out");

        EXPECT_EQ(RenameInto(Doomed("share\\file"), folder, u"OTHER"), test.byHandle);
        MakeFile("share/file");
        EXPECT_EQ(Rename(Doomed("share\\file"), NtPath("share\\oTHER"), Existing::Replace), test.byPath);
        EXPECT_EQ(Content("share/Other"), test.rule == CaseRule::AnyCase ? "" : "share/Other");
        std::filesystem::remove_all(root / "share");
    }
}

constexpr OpenOptions kNamed{.access = FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES,
                             .options = FILE_OPEN_REPARSE_POINT};

TEST_F(PosixNames, AreGivenToFilesThatHaveOthers)
{
    MakeFile("file", "content");
    MakeFile("taken");
    MakeFolder("folder");
    MakeSymlink("nowhere", "link");
    ASSERT_EQ(mkfifo(Path("pipe").c_str(), 0600), 0);
    NtFile holder = Open("file", {.access = kReadWrite});
    const struct {
        const char *file, *folder;
        std::u16string_view leaf;
        NTSTATUS status;
    } cases[] = {
        {"file", "folder", u"file", STATUS_SUCCESS},
        {"file", "folder", u"FILE", STATUS_OBJECT_NAME_COLLISION}, // in another case
        {"file", "", u"taken", STATUS_OBJECT_NAME_COLLISION},
        {"file", "", u"file", STATUS_OBJECT_NAME_COLLISION},
        {"link", "folder", u"link", STATUS_SUCCESS},
        {"pipe", "folder", u"pipe", STATUS_SUCCESS},
        {"folder", "", u"other", STATUS_FILE_IS_A_DIRECTORY},
        {"file", "taken", u"x", STATUS_NOT_A_DIRECTORY},
        {"file", "folder", u"..", STATUS_OBJECT_NAME_INVALID},
    };
    for (const auto &c : cases)
        EXPECT_EQ(LinkInto(Open(c.file, kNamed), Open(c.folder), c.leaf), c.status) << c.file << &c - cases;
    EXPECT_EQ(LinkInto(Open("file"), Folder(""), u"x"), STATUS_ACCESS_DENIED);
    EXPECT_EQ(LinkInto(Open("file", kNamed), Folder(""), u"x", 1), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(StandardOf(holder).NumberOfLinks, 2u);
    EXPECT_TRUE(std::filesystem::equivalent(root / "file", root / "folder/file"));
    EXPECT_EQ(std::filesystem::read_symlink(root / "folder/link"), "nowhere");
    struct stat pipe;
    ASSERT_EQ(stat(Path("folder/pipe").c_str(), &pipe), 0);
    EXPECT_EQ(pipe.st_nlink, 2u);
    // Who has the first name open keeps it when the second goes.
    EXPECT_EQ(Remove("folder\\file"), STATUS_SUCCESS);
    EXPECT_EQ(LinkInto(Open("file", kNamed), Folder(""), u"again"), STATUS_SUCCESS);
    NtFile last = Open("file", kNamed);
    EXPECT_EQ(Remove("file"), STATUS_SUCCESS);
    EXPECT_EQ(LinkInto(last, Folder(""), u"back"), STATUS_FILE_DELETED);
    EXPECT_EQ(Listing(), (NameSet{"again", "folder", "link", "pipe", "taken"}));
}

TEST_F(PosixNames, ChangePlacesInOneStep)
{
    MakeFile("file", "file");
    MakeFolder("folder/inner");
    MakeLink("file", "same");
    NtFile held = Open("folder\\inner", {.access = FILE_READ_ATTRIBUTES | DELETE_ACCESS});
    NtFile file = Doomed("file");
    const auto exchange = [&](const NtFile &one, const char *folder, std::u16string_view leaf) {
        return RenameInto(one, Folder(folder), leaf, FODR_RENAME_EXCHANGE);
    };
    EXPECT_EQ(exchange(file, "folder", u"none"), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(exchange(file, "", u"same"), STATUS_SUCCESS);
    EXPECT_EQ(exchange(Doomed("folder"), "folder", u"inner"), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(exchange(file, "folder", u"inner"), STATUS_SUCCESS);
    EXPECT_EQ(Content("folder/inner"), "file");
    EXPECT_TRUE(std::filesystem::is_directory(root / "file"));
    // Both go on under their new names.
    EXPECT_EQ(DeleteNow(held), STATUS_SUCCESS);
    EXPECT_EQ(DeleteNow(file), STATUS_SUCCESS);
    EXPECT_EQ(Listing(), (NameSet{"folder", "same"}));
    EXPECT_TRUE(std::filesystem::is_empty(root / "folder"));
}

} // namespace

} // namespace fodr::nt
