#include "ntposix/NtWords.h"

#include <fcntl.h>

#include <sys/socket.h>
#include <sys/un.h>

namespace fodr::nt {

namespace {

using Create = NtFixture;

constexpr uint32_t kReadWrite = GENERIC_READ | GENERIC_WRITE;

TEST_F(Create, DispositionsTellWhatTheyDid)
{
    const struct {
        uint32_t disposition;
        bool exists;
        NTSTATUS status;
        uint64_t information;
        const char *contentAfter; // null: there is no file
    } cases[] = {
        {FILE_SUPERSEDE, true, STATUS_SUCCESS, FILE_SUPERSEDED, ""},
        {FILE_SUPERSEDE, false, STATUS_SUCCESS, FILE_CREATED, ""},
        {FILE_OPEN, true, STATUS_SUCCESS, FILE_OPENED, "old"},
        {FILE_OPEN, false, STATUS_OBJECT_NAME_NOT_FOUND, FILE_DOES_NOT_EXIST, nullptr},
        {FILE_CREATE, true, STATUS_OBJECT_NAME_COLLISION, FILE_EXISTS, "old"},
        {FILE_CREATE, false, STATUS_SUCCESS, FILE_CREATED, ""},
        {FILE_OPEN_IF, true, STATUS_SUCCESS, FILE_OPENED, "old"},
        {FILE_OPEN_IF, false, STATUS_SUCCESS, FILE_CREATED, ""},
        {FILE_OVERWRITE, true, STATUS_SUCCESS, FILE_OVERWRITTEN, ""},
        {FILE_OVERWRITE, false, STATUS_OBJECT_NAME_NOT_FOUND, FILE_DOES_NOT_EXIST, nullptr},
        {FILE_OVERWRITE_IF, true, STATUS_SUCCESS, FILE_OVERWRITTEN, ""},
        {FILE_OVERWRITE_IF, false, STATUS_SUCCESS, FILE_CREATED, ""},
    };
    int number = 0;
    for (const auto &test : cases) {
        // The access asked for has nothing to do with what the disposition may do.
        for (uint32_t access : {kReadWrite, FILE_READ_ATTRIBUTES | SYNCHRONIZE}) {
            const std::string name = "file" + std::to_string(number++);
            if (test.exists)
                MakeFile(name, "old");
            NtFile file = Open(name, {.access = access, .disposition = test.disposition});
            EXPECT_EQ(file.status, test.status) << name << " " << test.disposition;
            EXPECT_EQ(file.information, test.information) << name << " " << test.disposition;
            EXPECT_EQ(test.status != STATUS_SUCCESS, static_cast<HANDLE>(file) == nullptr);
            file.Close();
            std::ifstream content(Path(name));
            EXPECT_EQ(content.good(), test.contentAfter != nullptr);
            EXPECT_EQ(std::string(std::istreambuf_iterator<char>(content), {}),
                      test.contentAfter ? test.contentAfter : "");
        }
    }
}

TEST_F(Create, KindsAreHeldApart)
{
    MakeFolder("folder");
    MakeFile("file");
    const struct {
        const char *name;
        uint32_t disposition;
        uint32_t options;
        NTSTATUS status;
    } cases[] = {
        {"folder", FILE_OPEN, FILE_DIRECTORY_FILE, STATUS_SUCCESS},
        {"folder", FILE_OPEN_IF, FILE_DIRECTORY_FILE, STATUS_SUCCESS},
        {"folder", FILE_OPEN, FILE_NON_DIRECTORY_FILE, STATUS_FILE_IS_A_DIRECTORY},
        {"folder", FILE_OVERWRITE_IF, FILE_NON_DIRECTORY_FILE, STATUS_FILE_IS_A_DIRECTORY},
        {"folder", FILE_OVERWRITE, 0, STATUS_OBJECT_NAME_COLLISION},
        {"folder", FILE_CREATE, FILE_DIRECTORY_FILE, STATUS_OBJECT_NAME_COLLISION},
        {"folder", FILE_CREATE, FILE_NON_DIRECTORY_FILE, STATUS_OBJECT_NAME_COLLISION},
        {"file", FILE_OPEN, FILE_DIRECTORY_FILE, STATUS_NOT_A_DIRECTORY},
        {"file", FILE_CREATE, FILE_DIRECTORY_FILE, STATUS_OBJECT_NAME_COLLISION},
        {"file", FILE_OPEN, FILE_NON_DIRECTORY_FILE, STATUS_SUCCESS},
        {"new-file\\", FILE_CREATE, 0, STATUS_OBJECT_NAME_INVALID},
        {"new-folder\\", FILE_CREATE, FILE_DIRECTORY_FILE, STATUS_SUCCESS},
        {"none\\new", FILE_CREATE, 0, STATUS_OBJECT_PATH_NOT_FOUND},
        {"file\\new", FILE_CREATE, 0, STATUS_OBJECT_PATH_NOT_FOUND},
        // Refused before any file is looked at.
        {"x", FILE_OPEN, FILE_DIRECTORY_FILE | FILE_NON_DIRECTORY_FILE, STATUS_INVALID_PARAMETER},
        {"x", FILE_OVERWRITE_IF, FILE_DIRECTORY_FILE, STATUS_INVALID_PARAMETER},
        {"x", 6, 0, STATUS_INVALID_PARAMETER},
        {"x", FILE_OPEN_IF, FILE_SYNCHRONOUS_IO_ALERT, STATUS_INVALID_PARAMETER},
        {"x", FILE_OPEN_IF, FILE_DELETE_ON_CLOSE, STATUS_INVALID_PARAMETER},
        {"x", FILE_OPEN_IF, 0x01000000, STATUS_INVALID_PARAMETER},
    };
    for (const auto &test : cases) {
        EXPECT_EQ(Open(test.name, {.disposition = test.disposition, .options = test.options}).status,
                  test.status)
            << test.name << " disposition " << test.disposition << " options " << test.options;
    }
    EXPECT_FALSE(std::filesystem::exists(root / "x"));
    EXPECT_TRUE(std::filesystem::is_directory(root / "new-folder"));
}

TEST_F(Create, AccessIsWhatWasAskedFor)
{
    MakeFile("file", "content");
    constexpr NTSTATUS kDenied = STATUS_ACCESS_DENIED;
    const struct {
        uint32_t access;
        NTSTATUS read, write, setEnd, query;
    } cases[] = {
        {GENERIC_READ, STATUS_SUCCESS, kDenied, kDenied, STATUS_SUCCESS},
        {GENERIC_WRITE, kDenied, STATUS_SUCCESS, STATUS_SUCCESS, kDenied},
        {GENERIC_ALL, STATUS_SUCCESS, STATUS_SUCCESS, STATUS_SUCCESS, STATUS_SUCCESS},
        {MAXIMUM_ALLOWED, STATUS_SUCCESS, STATUS_SUCCESS, STATUS_SUCCESS, STATUS_SUCCESS},
        {FILE_READ_DATA, STATUS_SUCCESS, kDenied, kDenied, kDenied},
        {FILE_APPEND_DATA, kDenied, STATUS_SUCCESS, kDenied, kDenied},
        {FILE_READ_ATTRIBUTES, kDenied, kDenied, kDenied, STATUS_SUCCESS},
        {GENERIC_EXECUTE, kDenied, kDenied, kDenied, STATUS_SUCCESS},
    };
    for (const auto &test : cases) {
        NtFile file = Open("file", {.access = test.access | SYNCHRONIZE});
        ASSERT_EQ(file.status, STATUS_SUCCESS);
        EXPECT_EQ(ReadAt(file, 0, 4).status, test.read) << std::hex << test.access;
        EXPECT_EQ(WriteAt(file, 0, "c").status, test.write) << std::hex << test.access;
        EXPECT_EQ(Set(file, FileEndOfFileInformation, FILE_END_OF_FILE_INFORMATION{8}), test.setEnd)
            << std::hex << test.access;
        FILE_BASIC_INFORMATION basic;
        EXPECT_EQ(Query(file, FileBasicInformation, &basic).status, test.query) << std::hex << test.access;
    }
}

TEST_F(Create, ReadOnlyFilesKeepTheirContent)
{
    MakeFile("file", "old");
    chmod(Path("file").c_str(), 0444);
    EXPECT_EQ(Open("file", {.access = GENERIC_WRITE}).status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(Open("file", {.disposition = FILE_OVERWRITE}).status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(Open("file", {.disposition = FILE_SUPERSEDE}).status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(Open("file", {.access = GENERIC_READ | DELETE_ACCESS, .options = FILE_DELETE_ON_CLOSE}).status,
              STATUS_CANNOT_DELETE);
    NtFile most = Open("file", {.access = MAXIMUM_ALLOWED | SYNCHRONIZE});
    EXPECT_EQ(ReadAt(most, 0, 9).text, "old");
    EXPECT_EQ(WriteAt(most, 0, "new").status, STATUS_ACCESS_DENIED);
    // A file may be made read-only by the create that fills it.
    NtFile made = Open(
        "made", {.access = GENERIC_WRITE, .disposition = FILE_CREATE, .attributes = FILE_ATTRIBUTE_READONLY});
    EXPECT_EQ(WriteAt(made, 0, "once"), (Outcome{STATUS_SUCCESS, 4}));
    made.Close();
    EXPECT_EQ(Open("made", {.access = GENERIC_WRITE}).status, STATUS_ACCESS_DENIED);
}

TEST_F(Create, DeleteOnCloseLeavesWithTheLastHandle)
{
    constexpr uint32_t kAccess = GENERIC_READ | DELETE_ACCESS;
    NtFile first =
        Open("file", {.access = kAccess, .disposition = FILE_CREATE, .options = FILE_DELETE_ON_CLOSE});
    NtFile second = Open("file");
    ASSERT_EQ(second.status, STATUS_SUCCESS);
    first.Close();
    EXPECT_TRUE(std::filesystem::exists(root / "file"));
    EXPECT_EQ(Open("file").status, STATUS_DELETE_PENDING);
    second.Close();
    EXPECT_FALSE(std::filesystem::exists(root / "file"));

    MakeFolder("folder");
    NtFile folder =
        Open("folder", {.access = kAccess, .options = FILE_DELETE_ON_CLOSE | FILE_DIRECTORY_FILE});
    folder.Close();
    EXPECT_FALSE(std::filesystem::exists(root / "folder"));
}

// Linux only from here: links, permissions and special files as POSIX has them.

TEST_F(Create, LinksAreFollowedUnlessTheLinkItselfIsWanted)
{
    MakeFile("file", "content");
    MakeFolder("folder");
    for (const auto &[target, name] : {std::pair("file", "link"), std::pair("folder", "folder-link"),
                                       std::pair("none", "dangling"), std::pair("loop", "loop")})
        std::filesystem::create_symlink(target, root / name);
    EXPECT_EQ(ReadAt(Open("LINK"), 0, 9).text, "content");
    EXPECT_EQ(Open("folder-link", {.options = FILE_DIRECTORY_FILE}).status, STATUS_SUCCESS);
    EXPECT_EQ(Open("dangling").status, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Open("dangling\\below").status, STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Open("dangling", {.disposition = FILE_OPEN_IF}).status, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Open("Dangling", {.disposition = FILE_CREATE}).status, STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(Open("loop").status, STATUS_REPARSE_POINT_NOT_RESOLVED);

    for (const char *name : {"link", "folder-link", "dangling", "LOOP"}) {
        NtFile link = Open(name, {.access = FILE_READ_ATTRIBUTES | DELETE_ACCESS | SYNCHRONIZE,
                                  .options = FILE_OPEN_REPARSE_POINT});
        ASSERT_EQ(link.status, STATUS_SUCCESS) << name;
        FILE_ATTRIBUTE_TAG_INFORMATION tag{};
        EXPECT_EQ(Query(link, FileAttributeTagInformation, &tag).status, STATUS_SUCCESS);
        EXPECT_EQ(tag.ReparseTag, IO_REPARSE_TAG_SYMLINK) << name;
        EXPECT_EQ(Delete(link), STATUS_SUCCESS) << name;
    }
    EXPECT_TRUE(std::filesystem::exists(root / "file"));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(root), {}), 2);
}

TEST_F(Create, SpecialFilesShowAttributesAndNothingElse)
{
    ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0666), 0);
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    Path("socket").copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int socketFd = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(socketFd, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    for (const char *name : {"fifo", "socket"}) {
        EXPECT_EQ(Open(name, {.access = FILE_READ_ATTRIBUTES | SYNCHRONIZE}).status, STATUS_SUCCESS) << name;
        EXPECT_EQ(Open(name, {.access = GENERIC_READ}).status, STATUS_ACCESS_DENIED) << name;
        EXPECT_EQ(Open(name, {.access = GENERIC_WRITE}).status, STATUS_ACCESS_DENIED) << name;
        EXPECT_EQ(Open(name, {.disposition = FILE_OVERWRITE_IF}).status, STATUS_ACCESS_DENIED) << name;
        NtFile most = Open(name, {.access = MAXIMUM_ALLOWED | SYNCHRONIZE});
        EXPECT_EQ(most.status, STATUS_SUCCESS) << name;
        EXPECT_EQ(ReadAt(most, 0, 1).status, STATUS_ACCESS_DENIED) << name;
    }
    close(socketFd);
}

TEST_F(Create, PermissionsCountForDataAlone)
{
    if (geteuid() == 0 && seteuid(65534) != 0)
        GTEST_SKIP() << "needs another user than root";
    const std::string folder = "/tmp/fodr-nt-" + std::to_string(getpid());
    std::filesystem::create_directory(folder);
    std::ofstream(folder + "/file") << "secret";
    chmod((folder + "/file").c_str(), 0);
    std::u16string path;
    EXPECT_TRUE(Utf8ToUtf16("\\??\\" + folder, path));
    {
        NtFile file(path + u"\\file", {.access = FILE_READ_ATTRIBUTES | SYNCHRONIZE});
        EXPECT_EQ(file.status, STATUS_SUCCESS);
        EXPECT_EQ(StandardOf(file).EndOfFile, 6);
        EXPECT_EQ(NtFile(path + u"\\file", {}).status, STATUS_ACCESS_DENIED);
        NtFile most(path + u"\\file", {.access = MAXIMUM_ALLOWED | SYNCHRONIZE});
        EXPECT_EQ(most.status, STATUS_SUCCESS);
        EXPECT_EQ(ReadAt(most, 0, 6).status, STATUS_ACCESS_DENIED);
        // Nothing can be taken out of a folder that can't be written.
        chmod((folder + "/file").c_str(), 0600);
        NtFile doomed(path + u"\\file", {.access = DELETE_ACCESS | SYNCHRONIZE});
        chmod(folder.c_str(), 0555);
        EXPECT_EQ(Delete(doomed), STATUS_ACCESS_DENIED);
        EXPECT_EQ(NtFile(path + u"\\new", {.disposition = FILE_CREATE}).status, STATUS_ACCESS_DENIED);
        chmod(folder.c_str(), 0);
        EXPECT_EQ(NtFile(path + u"\\file", {}).status, STATUS_ACCESS_DENIED);
        chmod(folder.c_str(), 0755);
    }
    std::filesystem::remove_all(folder);
    ASSERT_EQ(seteuid(getuid()), 0);
}

} // namespace

} // namespace fodr::nt
