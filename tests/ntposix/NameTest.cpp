#include "lib/unicode/NameMapping.h"
#include "ntposix/NtFixture.h"
#include "ntposix/NtName.h"
#include "ntposix/NtWords.h"

#include <atomic>
#include <sys/mount.h>
#include <vector>

namespace fodr::nt {
namespace {

class Names : public NtFixture {
protected:
    ~Names() override { ntposix::SetDriveLetterResolver(nullptr); }
};

TEST_F(Names, AreCheckedComponentByComponent)
{
    MakeFolder("sub/inner");
    MakeFile("sub/file");
    const struct {
        NTSTATUS status;
        std::vector<const char *> names;
    } cases[] = {
        // The last is the folder of the test with a separator behind it.
        {STATUS_SUCCESS,
         {"sub\\file", "sub/file", "sub", "sub\\", "sub\\inner/", "sub\\file::$DATA", "sub\\file::$data",
          ""}},
        {STATUS_OBJECT_NAME_INVALID, {"sub\\file\\", "sub\\\\file", "sub/\\file", "sub\\\\", "\\sub"}},
        {STATUS_OBJECT_NAME_INVALID,
         {"..", "sub\\..\\sub", "sub/../../../etc/passwd", "sub\\.\\file", "sub\\."}},
        {STATUS_OBJECT_NAME_INVALID, {"sub\\*", "sub\\a?b", "sub\\a\"b", "sub\\a\tb", "su:b\\file"}},
        {STATUS_OBJECT_NAME_INVALID, {"sub\\file:", "sub\\file::$INDEX_ALLOCATION", "sub\\file:..\\x"}},
        {STATUS_OBJECT_NAME_NOT_FOUND, {"none"}},
        {STATUS_OBJECT_PATH_NOT_FOUND, {"none\\file", "sub\\file\\below"}},
    };
    for (const auto &[status, names] : cases) {
        for (const char *name : names)
            EXPECT_EQ(Open(name).status, status) << name;
    }
}

TEST_F(Names, LeadToDrivesPathsAndNoFurther)
{
    MakeFile("file");
    const std::u16string prefix = u"\\??\\";
    const std::u16string folder = root.u16string();
    const struct {
        NTSTATUS status;
        std::vector<std::u16string> names;
    } cases[] = {
        // A separator behind the root directory is the joint of a share of it.
        {STATUS_SUCCESS,
         {folder + u"\\file", folder, u"C:" + folder + u"\\file", u"c:\\", u"C:", u"/", u"/\\",
          u"/\\" + folder.substr(1), u"\\" + folder.substr(1)}},
        {STATUS_OBJECT_NAME_INVALID, {u"//\\tmp", u"/\\..\\tmp", u"C:\\..", u""}},
        {STATUS_OBJECT_NAME_INVALID, // with a lone surrogate or a zero
         {folder + u"\\\xD800", folder + std::u16string(u"\\fi\0le", 6)}},
        {STATUS_OBJECT_PATH_NOT_FOUND, {u"Q:\\file"}},
        {STATUS_OBJECT_NAME_NOT_FOUND, {u"Q:", u"C:file"}},
        {STATUS_BAD_NETWORK_PATH, {u"UNC\\server\\share\\file", u"unc"}},
        {STATUS_NAME_TOO_LONG, {folder + u"\\" + std::u16string(300, u'n')}},
    };
    for (const auto &[status, names] : cases) {
        for (const std::u16string &name : names)
            EXPECT_EQ(NtFile(prefix + name, {}).status, status) << &name - names.data();
    }
    for (const std::u16string &name : {std::u16string(), folder})
        EXPECT_EQ(NtFile(name, {}).status, STATUS_OBJECT_PATH_SYNTAX_BAD);
}

std::string folderOfX;

TEST_F(Names, DriveLettersAreAskedFor)
{
    MakeFile("file");
    folderOfX = root.string();
    ntposix::SetDriveLetterResolver([](char letter) { return letter == 'X' ? folderOfX : std::string(); });
    EXPECT_EQ(NtFile(u"\\??\\X:\\FILE", {}).status, STATUS_SUCCESS);
    EXPECT_EQ(NtFile(u"\\??\\X:", {}).status, STATUS_SUCCESS);
    EXPECT_EQ(NtFile(u"\\??\\C:\\", {}).status, STATUS_OBJECT_PATH_NOT_FOUND);
}

// Linux only: NT has no such names.
TEST_F(Names, EveryPosixNameCanBeOpenedMadeAndDeleted)
{
    for (const std::string name :
         {"a:b*c?", "back\\slash", "tab\there", "\xFF\xFE", "caf\xE9", "trailing. "}) {
        SCOPED_TRACE(name);
        const std::u16string path = NtPath("") + NtNameFromPosix(name);
        EXPECT_EQ(NtFile(path, {.disposition = FILE_CREATE}).status, STATUS_SUCCESS);
        EXPECT_EQ(Listing(), NameSet{name});
        EXPECT_EQ(NtFile(path, {.access = DELETE_ACCESS, .options = FILE_DELETE_ON_CLOSE}).status,
                  STATUS_SUCCESS);
        EXPECT_EQ(Listing(), NameSet());
    }
}

TEST_F(Names, AttributesAreToldByPath)
{
    MakeFolder("folder");
    MakeReadOnly("file");
    MakeFile(".hidden");
    MakeSymlink("folder", "link");
    MakeSymlink("nowhere", "dangling");
    const struct {
        const char *name;
        uint32_t attributes; // 0: there is none
    } cases[] = {
        {"folder", FILE_ATTRIBUTE_DIRECTORY},
        {"FOLDER\\", FILE_ATTRIBUTE_DIRECTORY},
        {"file", FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_READONLY},
        {"file\\", 0},
        {".hidden", FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_HIDDEN},
        {"link", FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY},
        {"dangling", FILE_ATTRIBUTE_REPARSE_POINT},
        {"none", 0},
        {"..", 0},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        const std::u16string path = NtPath(test.name);
        uint32_t attributes = 0;
        EXPECT_EQ(GetFileAttributes(path.c_str(), &attributes), test.attributes != 0);
        EXPECT_EQ(attributes, test.attributes);
        EXPECT_EQ(PathFileExists(path.c_str()), test.attributes != 0);
    }
}

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
