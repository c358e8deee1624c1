#include "lib/unicode/NameMapping.h"
#include "ntposix/DriveLetters.h"
#include "ntposix/NtWords.h"

#include <filesystem>
#include <fstream>

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
        const char *name;
        NTSTATUS status;
    } cases[] = {
        {"sub\\file", STATUS_SUCCESS},
        {"sub/file", STATUS_SUCCESS},
        {"sub", STATUS_SUCCESS},
        {"sub\\", STATUS_SUCCESS},
        {"sub\\inner/", STATUS_SUCCESS},
        {"", STATUS_SUCCESS}, // the folder of the test with a separator behind it
        {"sub\\file\\", STATUS_OBJECT_NAME_INVALID},
        {"sub\\\\file", STATUS_OBJECT_NAME_INVALID},
        {"sub/\\file", STATUS_OBJECT_NAME_INVALID},
        {"sub\\\\", STATUS_OBJECT_NAME_INVALID},
        {"\\sub", STATUS_OBJECT_NAME_INVALID},
        {"..", STATUS_OBJECT_NAME_INVALID},
        {"sub\\..\\sub", STATUS_OBJECT_NAME_INVALID},
        {"sub/../../../etc/passwd", STATUS_OBJECT_NAME_INVALID},
        {"sub\\.\\file", STATUS_OBJECT_NAME_INVALID},
        {"sub\\.", STATUS_OBJECT_NAME_INVALID},
        {"sub\\*", STATUS_OBJECT_NAME_INVALID},
        {"sub\\a?b", STATUS_OBJECT_NAME_INVALID},
        {"sub\\a\"b", STATUS_OBJECT_NAME_INVALID},
        {"sub\\a\tb", STATUS_OBJECT_NAME_INVALID},
        {"su:b\\file", STATUS_OBJECT_NAME_INVALID},
        {"sub\\file::$DATA", STATUS_SUCCESS},
        {"sub\\file::$data", STATUS_SUCCESS},
        {"sub\\file:", STATUS_OBJECT_NAME_INVALID},
        {"sub\\file::$INDEX_ALLOCATION", STATUS_OBJECT_NAME_INVALID},
        {"sub\\file:..\\x", STATUS_OBJECT_NAME_INVALID},
        {"none", STATUS_OBJECT_NAME_NOT_FOUND},
        {"none\\file", STATUS_OBJECT_PATH_NOT_FOUND},
        {"sub\\file\\below", STATUS_OBJECT_PATH_NOT_FOUND},
    };
    for (const auto &test : cases)
        EXPECT_EQ(Open(test.name).status, test.status) << test.name;
}

TEST_F(Names, LeadToDrivesPathsAndNoFurther)
{
    MakeFile("file");
    std::u16string folder;
    ASSERT_TRUE(Utf8ToUtf16(root.string(), folder));
    const struct {
        std::u16string name;
        NTSTATUS status;
    } cases[] = {
        {u"\\??\\" + folder + u"\\file", STATUS_SUCCESS},
        {u"\\??\\" + folder, STATUS_SUCCESS},
        {u"\\??\\C:" + folder + u"\\file", STATUS_SUCCESS},
        {u"\\??\\c:\\", STATUS_SUCCESS},
        {u"\\??\\C:", STATUS_SUCCESS},
        {u"\\??\\/", STATUS_SUCCESS},
        {u"\\??\\/\\", STATUS_SUCCESS}, // the joint of a share of the root directory
        {u"\\??\\/\\" + folder.substr(1), STATUS_SUCCESS},
        {u"\\??\\\\" + folder.substr(1), STATUS_SUCCESS},
        {u"\\??\\//\\tmp", STATUS_OBJECT_NAME_INVALID},
        {u"\\??\\/\\..\\tmp", STATUS_OBJECT_NAME_INVALID},
        {u"\\??\\C:\\..", STATUS_OBJECT_NAME_INVALID},
        {u"\\??\\Q:\\file", STATUS_OBJECT_PATH_NOT_FOUND},
        {u"\\??\\Q:", STATUS_OBJECT_NAME_NOT_FOUND},
        {u"\\??\\C:file", STATUS_OBJECT_NAME_NOT_FOUND},
        {u"\\??\\UNC\\server\\share\\file", STATUS_BAD_NETWORK_PATH},
        {u"\\??\\unc", STATUS_BAD_NETWORK_PATH},
        {u"\\??\\", STATUS_OBJECT_NAME_INVALID},
        {u"", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {folder, STATUS_OBJECT_PATH_SYNTAX_BAD},
        {u"\\??\\" + folder + std::u16string(u"\\fi\0le", 6), STATUS_OBJECT_NAME_INVALID},
        {u"\\??\\" + folder + u"\\\xD800", STATUS_OBJECT_NAME_INVALID}, // a lone surrogate
        {u"\\??\\" + folder + u"\\" + std::u16string(300, u'n'), STATUS_NAME_TOO_LONG},
    };
    for (const auto &test : cases)
        EXPECT_EQ(NtFile(test.name, {}).status, test.status)
            << Utf8(test.name.substr(0, test.name.find(0xD800)));
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
        const std::u16string path = NtPath("") + NtNameFromPosix(name);
        NtFile made(path, {.access = GENERIC_ALL, .disposition = FILE_CREATE});
        EXPECT_EQ(made.status, STATUS_SUCCESS) << name;
        EXPECT_TRUE(std::filesystem::exists(root / name)) << name;
        made.Close();
        NtFile again(path, {.access = DELETE_ACCESS | SYNCHRONIZE});
        EXPECT_EQ(Delete(again), STATUS_SUCCESS) << name;
        again.Close();
        EXPECT_FALSE(std::filesystem::exists(root / name)) << name;
    }
}

TEST_F(Names, AttributesAreToldByPath)
{
    MakeFolder("folder");
    MakeFile("file");
    MakeFile(".hidden");
    std::filesystem::create_symlink("folder", root / "link");
    std::filesystem::create_symlink("nowhere", root / "dangling");
    chmod(Path("file").c_str(), 0444);
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
        uint32_t attributes = 0;
        EXPECT_EQ(GetFileAttributes(NtPath(test.name).c_str(), &attributes), test.attributes != 0)
            << test.name;
        EXPECT_EQ(attributes, test.attributes) << test.name;
        EXPECT_EQ(PathFileExists(NtPath(test.name).c_str()), test.attributes != 0) << test.name;
    }
}

} // namespace

} // namespace fodr::nt
