#include "lib/unicode/NameMapping.h"
#include "ntposix/NtFixture.h"
#include "ntposix/NtName.h"

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

} // namespace

} // namespace fodr::nt
