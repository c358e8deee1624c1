#include "ntposix/NtWords.h"

namespace fodr::nt {

namespace {

using Create = NtFixture;

TEST_F(Create, DispositionsTellWhatTheyDid)
{
    constexpr Outcome kCreated{STATUS_SUCCESS, FILE_CREATED};
    constexpr Outcome kMissing{STATUS_OBJECT_NAME_NOT_FOUND, FILE_DOES_NOT_EXIST};
    const struct {
        uint32_t disposition;
        Outcome ofPresent;
        const char *contentAfter;
        Outcome ofMissing;
    } cases[] = {
        {FILE_SUPERSEDE, {STATUS_SUCCESS, FILE_SUPERSEDED}, "", kCreated},
        {FILE_OPEN, {STATUS_SUCCESS, FILE_OPENED}, "old", kMissing},
        {FILE_CREATE, {STATUS_OBJECT_NAME_COLLISION, FILE_EXISTS}, "old", kCreated},
        {FILE_OPEN_IF, {STATUS_SUCCESS, FILE_OPENED}, "old", kCreated},
        {FILE_OVERWRITE, {STATUS_SUCCESS, FILE_OVERWRITTEN}, "", kMissing},
        {FILE_OVERWRITE_IF, {STATUS_SUCCESS, FILE_OVERWRITTEN}, "", kCreated},
    };
    for (const auto &test : cases) {
        // The access asked for has nothing to do with what the disposition may do.
        for (const uint32_t access : {kReadWrite, FILE_READ_ATTRIBUTES}) {
            for (const bool exists : {false, true}) {
                SCOPED_TRACE(testing::Message() << test.disposition << " of " << exists << " for " << access);
                std::filesystem::remove(root / "file");
                if (exists)
                    MakeFile("file", "old");
                NtFile file = Open("file", {.access = access, .disposition = test.disposition});
                EXPECT_EQ((Outcome{file.status, file.information}), exists ? test.ofPresent : test.ofMissing);
                EXPECT_EQ(file.status == STATUS_SUCCESS, static_cast<HANDLE>(file) != nullptr);
                file.Close();
                EXPECT_EQ(Exists("file"), exists || test.ofMissing == kCreated);
                EXPECT_EQ(Content("file"), exists ? test.contentAfter : "");
            }
        }
    }
}

TEST_F(Create, KindsAreHeldApart)
{
    MakeFolder("folder");
    MakeFile("file");
    constexpr uint32_t kFolder = FILE_DIRECTORY_FILE, kFile = FILE_NON_DIRECTORY_FILE;
    struct Attempt {
        const char *name;
        uint32_t disposition, options;
    };
    const std::pair<NTSTATUS, std::vector<Attempt>> cases[] = {
        {STATUS_SUCCESS,
         {{"folder", FILE_OPEN, kFolder},
          {"folder", FILE_OPEN_IF, kFolder},
          {"file", FILE_OPEN, kFile},
          {"new-folder\\", FILE_CREATE, kFolder}}},
        {STATUS_FILE_IS_A_DIRECTORY, {{"folder", FILE_OPEN, kFile}, {"folder", FILE_OVERWRITE_IF, kFile}}},
        {STATUS_NOT_A_DIRECTORY, {{"file", FILE_OPEN, kFolder}}},
        {STATUS_OBJECT_NAME_COLLISION,
         {{"folder", FILE_OVERWRITE, 0},
          {"folder", FILE_CREATE, kFolder},
          {"folder", FILE_CREATE, kFile},
          {"file", FILE_CREATE, kFolder}}},
        {STATUS_OBJECT_NAME_INVALID, {{"new-file\\", FILE_CREATE, 0}}},
        {STATUS_OBJECT_PATH_NOT_FOUND, {{"none\\new", FILE_CREATE, 0}, {"file\\new", FILE_CREATE, 0}}},
        // Refused before any file is looked at.
        {STATUS_INVALID_PARAMETER,
         {{"x", FILE_OPEN, kFolder | kFile},
          {"x", FILE_OVERWRITE_IF, kFolder},
          {"x", 6, 0},
          {"x", FILE_OPEN_IF, FILE_SYNCHRONOUS_IO_ALERT},
          {"x", FILE_OPEN_IF, FILE_DELETE_ON_CLOSE},
          {"x", FILE_OPEN_IF, 0x01000000}}},
    };
    for (const auto &[status, attempts] : cases) {
        for (const auto &[name, disposition, options] : attempts)
            EXPECT_EQ(Open(name, {.disposition = disposition, .options = options}).status, status)
                << name << " disposition " << disposition << " options " << options;
    }
    EXPECT_EQ(Listing(), (NameSet{"file", "folder", "new-folder"}));
    EXPECT_EQ(Folder("new-folder").status, STATUS_SUCCESS);
}

TEST_F(Create, AccessIsWhatWasAskedFor)
{
    MakeFile("file", "content");
    // Of r(ead), w(rite), s(et the end) and q(uery) the handle is granted these.
    const std::pair<uint32_t, std::string_view> cases[] = {
        {GENERIC_READ, "rq"},    {GENERIC_WRITE, "ws"},       {GENERIC_ALL, "rwsq"},
        {GENERIC_EXECUTE, "q"},  {MAXIMUM_ALLOWED, "rwsq"},   {FILE_READ_DATA, "r"},
        {FILE_APPEND_DATA, "w"}, {FILE_READ_ATTRIBUTES, "q"},
    };
    for (const auto &[access, rights] : cases) {
        SCOPED_TRACE(access);
        const auto expected = [&rights](char right) {
            return rights.find(right) != rights.npos ? STATUS_SUCCESS : STATUS_ACCESS_DENIED;
        };
        const NtFile file = Open("file", {.access = access});
        ASSERT_EQ(file.status, STATUS_SUCCESS);
        EXPECT_EQ(ReadAt(file, 0, 4).status, expected('r'));
        EXPECT_EQ(WriteAt(file, 0, "c").status, expected('w'));
        EXPECT_EQ(Set(file, FileEndOfFileInformation, FILE_END_OF_FILE_INFORMATION{8}), expected('s'));
        FILE_BASIC_INFORMATION basic;
        EXPECT_EQ(Query(file, FileBasicInformation, &basic), expected('q'));
    }
}

TEST_F(Create, ReadOnlyFilesKeepTheirContent)
{
    MakeReadOnly("file");
    for (const OpenOptions &how : {OpenOptions{.access = GENERIC_WRITE},
                                   {.disposition = FILE_OVERWRITE},
                                   {.disposition = FILE_SUPERSEDE}})
        EXPECT_EQ(Open("file", how).status, STATUS_ACCESS_DENIED) << how.disposition;
    EXPECT_EQ(Open("file", {.access = DELETE_ACCESS, .options = FILE_DELETE_ON_CLOSE}).status,
              STATUS_CANNOT_DELETE);
    const NtFile most = Open("file", {.access = MAXIMUM_ALLOWED});
    EXPECT_EQ(ReadAt(most, 0, 9).text, "old");
    EXPECT_EQ(WriteAt(most, 0, "new").status, STATUS_ACCESS_DENIED);
    // A file may be made read-only by the create that fills it.
    const OpenOptions making{
        .access = GENERIC_WRITE, .disposition = FILE_CREATE, .attributes = FILE_ATTRIBUTE_READONLY};
    EXPECT_EQ(WriteAt(Open("made", making), 0, "once"), (Outcome{STATUS_SUCCESS, 4}));
    EXPECT_EQ(Open("made", {.access = GENERIC_WRITE}).status, STATUS_ACCESS_DENIED);
}

TEST_F(Create, DeleteOnCloseLeavesWithTheLastHandle)
{
    const OpenOptions passing{
        .access = DELETE_ACCESS, .disposition = FILE_CREATE, .options = FILE_DELETE_ON_CLOSE};
    NtFile first = Open("file", passing);
    NtFile second = Open("file");
    ASSERT_EQ(second.status, STATUS_SUCCESS);
    first.Close();
    EXPECT_TRUE(Exists("file"));
    EXPECT_EQ(Open("file").status, STATUS_DELETE_PENDING);
    second.Close();
    MakeFolder("folder");
    Open("folder", {.access = DELETE_ACCESS, .options = FILE_DELETE_ON_CLOSE | FILE_DIRECTORY_FILE});
    EXPECT_EQ(Listing(), NameSet());
}

// Linux only from here: links, permissions and special files as POSIX has them.

TEST_F(Create, LinksAreFollowedUnlessTheLinkItselfIsWanted)
{
    MakeFile("file", "content");
    MakeFolder("folder");
    MakeSymlink("file", "link");
    MakeSymlink("folder", "folder-link");
    MakeSymlink("none", "dangling");
    MakeSymlink("loop", "loop");
    EXPECT_EQ(ReadAt(Open("LINK"), 0, 9).text, "content");
    EXPECT_EQ(Folder("folder-link").status, STATUS_SUCCESS);
    EXPECT_EQ(Open("dangling").status, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Open("dangling\\below").status, STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Open("dangling", {.disposition = FILE_OPEN_IF}).status, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Open("Dangling", {.disposition = FILE_CREATE}).status, STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(Open("loop").status, STATUS_REPARSE_POINT_NOT_RESOLVED);
    const OpenOptions itself{.access = FILE_READ_ATTRIBUTES | DELETE_ACCESS,
                             .options = FILE_OPEN_REPARSE_POINT};
    for (const char *name : {"link", "folder-link", "dangling", "LOOP"}) {
        SCOPED_TRACE(name);
        const NtFile link = Open(name, itself);
        EXPECT_EQ(Told<FILE_ATTRIBUTE_TAG_INFORMATION>(link, FileAttributeTagInformation).ReparseTag,
                  IO_REPARSE_TAG_SYMLINK);
        EXPECT_EQ(Delete(link), STATUS_SUCCESS);
    }
    EXPECT_EQ(Listing(), (NameSet{"file", "folder"}));
}

TEST_F(Create, SpecialFilesShowAttributesAndNothingElse)
{
    ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0666), 0);
    EXPECT_EQ(Open("fifo", {.access = FILE_READ_ATTRIBUTES}).status, STATUS_SUCCESS);
    for (const OpenOptions &how : {OpenOptions{.access = GENERIC_READ},
                                   {.access = GENERIC_WRITE},
                                   {.access = FILE_READ_ATTRIBUTES, .disposition = FILE_OVERWRITE_IF}})
        EXPECT_EQ(Open("fifo", how).status, STATUS_ACCESS_DENIED) << how.access;
    const NtFile most = Open("fifo", {.access = MAXIMUM_ALLOWED});
    EXPECT_EQ(most.status, STATUS_SUCCESS);
    EXPECT_EQ(ReadAt(most, 0, 1).status, STATUS_ACCESS_DENIED);
}

TEST_F(Create, PermissionsCountForDataAlone)
{
    if (geteuid() == 0 && (chown(root.c_str(), 65534, 65534) != 0 || seteuid(65534) != 0))
        GTEST_SKIP() << "needs another user than root";
    MakeFile("file", "secret");
    chmod(Path("file").c_str(), 0);
    EXPECT_EQ(StandardOf(Open("file", {.access = FILE_READ_ATTRIBUTES})).EndOfFile, 6);
    EXPECT_EQ(Open("file").status, STATUS_ACCESS_DENIED);
    const NtFile most = Open("file", {.access = MAXIMUM_ALLOWED});
    EXPECT_EQ(most.status, STATUS_SUCCESS);
    EXPECT_EQ(ReadAt(most, 0, 6).status, STATUS_ACCESS_DENIED);
    // Nothing can be taken out of a folder that can't be written.
    chmod(Path("file").c_str(), 0600);
    const NtFile doomed = Doomed("file");
    chmod(root.c_str(), 0555);
    EXPECT_EQ(Delete(doomed), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Open("new", {.disposition = FILE_CREATE}).status, STATUS_ACCESS_DENIED);
    chmod(root.c_str(), 0);
    EXPECT_EQ(Open("file").status, STATUS_ACCESS_DENIED);
    chmod(root.c_str(), 0755);
    ASSERT_EQ(seteuid(getuid()), 0);
}

} // namespace

} // namespace fodr::nt
