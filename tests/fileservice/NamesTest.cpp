// Deletions and renames that act at once, as packets: what may reach the file system, and what it does then.
#include "Wine.h"
#include "fileservice/Share.h"

namespace fodr::test {
namespace {

using namespace nt;
using namespace std::literals;

constexpr CreateArguments kDoomed{.access = DELETE_ACCESS | FILE_READ_ATTRIBUTES};
constexpr CreateArguments kFolder{.access = FILE_READ_ATTRIBUTES, .options = FILE_DIRECTORY_FILE};

std::string Utf16(std::u16string_view text)
{
    std::string bytes = WireText(text);
    bytes.resize(bytes.size() - sizeof(char16_t));
    return bytes;
}

TEST(Names, ExamplesOfThePageDeleteAndRename)
{
    FODR_SKIP_ON_WINE("it doesn't know these classes");
    Share share;
    std::filesystem::create_directory(share.folder / "d");
    share.Put("b", "file");
    share.Put("d/b", "replaced");
    File reader = share.Create(u"\\d\\b", {.access = GENERIC_READ});
    File file = share.Create(u"\\b", kDoomed);
    File folder = share.Create(u"\\d", kFolder);
    Bytes rename = WireExample("Set information: rename into a directory");
    StoreLittle(rename.data() + 8, file.Id());
    StoreLittle(rename.data() + 64, folder.Id());
    Bytes remove = WireExample("Set information: deletion at once");
    StoreLittle(remove.data() + 8, file.Id());
    const NTSTATUS renamed = share.Ask(rename).Status();
    EXPECT_EQ(renamed, STATUS_SUCCESS);
    EXPECT_EQ(share.Contents("d/b"), "file");
    EXPECT_EQ(reader.Read(0, 8).Data(), "replaced");
    EXPECT_EQ(share.Ask(remove).Status(), STATUS_SUCCESS);
    EXPECT_FALSE(share.Exists("d/b"));
    EXPECT_EQ(share.Open(u"\\d\\b", {.disposition = FILE_CREATE}), STATUS_SUCCESS);
}

TEST(Names, ARenameThatLiesReachesNothing)
{
    Share other([](RedirectedDeviceSettings &settings) { settings.deviceId = kDeviceId; });
    Share share;
    std::filesystem::create_directories(share.folder / "d/inner");
    share.Put("d/a.txt", "contents");
    File file = share.Create(u"\\d\\a.txt", kDoomed);
    File root = share.Create(u"\\", {.access = DELETE_ACCESS | FILE_READ_ATTRIBUTES});
    const uint32_t folder = share.Create(u"\\d", kFolder).Id();
    const uint32_t foreign = other.Create(u"\\", kFolder).Id();
    File closed = share.Create(u"\\d", kFolder);
    closed.Close();
    const auto record = [&](uint64_t directory, uint32_t nameLength, std::u16string_view name) {
        return Little(3) + Little(directory) + Little(nameLength, 4) + Utf16(name);
    };
    const std::string good = record(folder, 2, u"b");
    const struct {
        std::string what, buffer;
        NTSTATUS status;
    } cases[] = {
        {"nothing", "", STATUS_INFO_LENGTH_MISMATCH},
        {"short", good.substr(0, 19), STATUS_INFO_LENGTH_MISMATCH},
        {"no name", good.substr(0, 20), STATUS_INVALID_PARAMETER},
        {"half a unit", good.substr(0, 21), STATUS_INVALID_PARAMETER},
        {"empty name", record(folder, 0, u"b"), STATUS_INVALID_PARAMETER},
        {"odd length", record(folder, 3, u"bb"), STATUS_INVALID_PARAMETER},
        {"longer than it is", record(folder, 4, u"b"), STATUS_INVALID_PARAMETER},
        {"far longer", record(folder, 0xFFFFFFFE, u"b"), STATUS_INVALID_PARAMETER},
        {"no directory", record(0, 2, u"b"), STATUS_INVALID_PARAMETER},
        {"wide directory", record(folder | 1ull << 32, 2, u"b"), STATUS_INVALID_PARAMETER},
        {"no handle", record(0x7FFFFFF0, 2, u"b"), STATUS_INVALID_HANDLE},
        {"closed handle", record(closed.Id(), 2, u"b"), STATUS_INVALID_HANDLE},
        {"another share's", record(foreign, 2, u"b"), STATUS_INVALID_HANDLE},
        {"a file", record(file.Id(), 2, u"b"), STATUS_NOT_A_DIRECTORY},
        {"up", record(folder, 4, u".."), STATUS_OBJECT_NAME_INVALID},
        {"self", record(folder, 2, u"."), STATUS_OBJECT_NAME_INVALID},
        {"path", record(folder, 14, u"inner\\b"), STATUS_OBJECT_NAME_INVALID},
        {"slash", record(folder, 8, u"../b"), STATUS_OBJECT_NAME_INVALID},
        {"absolute", record(folder, 14, u"\\??\\C:b"), STATUS_OBJECT_NAME_INVALID},
        {"stream", record(folder, 6, u"b:s"), STATUS_OBJECT_NAME_INVALID},
        {"zero", record(folder, 6, u"b\0c"sv), STATUS_OBJECT_NAME_INVALID},
    };
    for (const auto &test : cases) {
        std::string link = test.buffer;
        if (!link.empty())
            link[0] = 0; // which would replace
        EXPECT_EQ(file.Set(FileRenameInformationEx, test.buffer).Status(), test.status) << test.what;
        EXPECT_EQ(file.Set(FileLinkInformation, link).Status(), test.status) << test.what;
    }
    EXPECT_EQ(file.Set(FileLinkInformation, good).Status(), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(root.Set(FileLinkInformation, good).Status(), STATUS_ACCESS_DENIED);
    EXPECT_EQ(root.Set(FileRenameInformationEx, good).Status(), STATUS_ACCESS_DENIED);
    EXPECT_EQ(root.Set(FileDispositionInformationEx, Little(3, 4)).Status(), STATUS_ACCESS_DENIED);
    EXPECT_EQ(file.Set(FileDispositionInformationEx, "\3\0\0"s).Status(),
              RunsOnWine() ? STATUS_NOT_IMPLEMENTED : STATUS_INFO_LENGTH_MISMATCH);
    for (const uint32_t linking : {30u, 31u, 36u, 40u, 56u, 57u, 61u, 66u, 69u, 72u, 73u})
        EXPECT_EQ(file.Set(linking, good).Status(), STATUS_INVALID_INFO_CLASS) << linking;
    EXPECT_EQ(share.Contents("d/a.txt"), "contents");
    EXPECT_TRUE(std::filesystem::is_empty(share.folder / "d/inner"));
    EXPECT_TRUE(std::filesystem::is_empty(other.folder));
    // Behind the name anything may follow.
    EXPECT_EQ(file.Set(FileRenameInformationEx, good + "rest").Status(),
              RunsOnWine() ? STATUS_NOT_IMPLEMENTED : STATUS_SUCCESS);
}

// A number in a record never becomes a handle of its own.
TEST(Names, AControlReachesNoFileButTheShares)
{
    FODR_SKIP_ON_WINE("it copies no ranges");
    Share other([](RedirectedDeviceSettings &settings) { settings.deviceId = kDeviceId; });
    Share share;
    other.Put("secret", "secret");
    share.Put("source", "source");
    File target = share.Made("target", "");
    File source = share.Create(u"\\source", {.access = GENERIC_READ});
    File closed = share.Create(u"\\source", {.access = GENERIC_READ});
    closed.Close();
    const uint64_t foreign = other.Create(u"\\secret", {.access = GENERIC_READ}).Id();
    const auto copy = [&](uint64_t from) {
        const std::string record = Little(from) + Little(0) + Little(0) + Little(6);
        return target.Control(FSCTL_FODR_COPY_RANGE, record, 8).Status();
    };
    for (const uint64_t wrong :
         std::vector<uint64_t>{foreign, closed.Id(), 0, source.Id() | 1ull << 32, UINT64_MAX})
        EXPECT_EQ(copy(wrong), STATUS_INVALID_HANDLE) << wrong;
    EXPECT_EQ(target.Control(FSCTL_FODR_COPY_RANGE, std::string(31, '\0'), 8).Status(),
              STATUS_INVALID_PARAMETER);
    for (const uint32_t code : {0x90074u, 0x900FCu, 0x98344u, 0x983E8u})
        EXPECT_EQ(target.Control(code, Little(foreign) + std::string(40, '\0'), 8).Status(),
                  STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(share.Contents("target"), "");
    EXPECT_EQ(copy(source.Id()), STATUS_SUCCESS);
    EXPECT_EQ(share.Contents("target"), "source");
}

// "/tmp/x/docs" without its last letter is "/tmp/x/doc", and the root's own name is no place for a file
// either.
TEST(Names, ARenameWithoutANameStaysInTheShare)
{
    Share share;
    const std::string cut = share.folder.string().substr(0, share.folder.string().size() - 1);
    File file = share.Made("mine", "contents");
    const auto record = [](uint32_t nameLength, const std::string &name) {
        return std::string("\1\0", 2) + Little(nameLength, 4) + name;
    };
    const std::string name = WireText(u"\\new");
    const struct {
        uint32_t stated;
        std::string name;
        NTSTATUS status;
    } cases[] = {
        {0, name, STATUS_INVALID_PARAMETER},
        {2, name, STATUS_OBJECT_NAME_INVALID},
        {4, name, STATUS_OBJECT_NAME_INVALID},
        {6, WireText(u"\\/"), STATUS_OBJECT_NAME_INVALID},
        {8, WireText(u"\\.."), STATUS_OBJECT_NAME_INVALID},
        {14, WireText(u"\\x/../y"), STATUS_OBJECT_NAME_INVALID},
        {42, WireText(u"\\::$Index_ALLOCATION"), STATUS_OBJECT_NAME_INVALID},
    };
    for (const auto &test : cases)
        EXPECT_EQ(file.Set(FileRenameInformation, record(test.stated, test.name)).Status(), test.status)
            << test.stated;
    EXPECT_EQ(file.Set(FileRenameInformation, "\1").Status(), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(share.Exists("mine"));
    EXPECT_FALSE(std::filesystem::exists(cut));
}

TEST(Names, TheRootOfAShareStays)
{
    Share share;
    for (const std::u16string &path : {u""s, u"\\"s, u"/"s, u"\\/"s, u"\\::$INDEX_ALLOCATION"s}) {
        EXPECT_TRUE(IsError(share.Open(path, {.access = DELETE_ACCESS, .options = FILE_DELETE_ON_CLOSE})));
        File root = share.Create(path, kDoomed);
        if (IsError(root.created.Status())) // the last is one where there is NTFS
            continue;
        for (const uint32_t infoClass : {FileDispositionInformation, FileDispositionInformationEx})
            EXPECT_EQ(root.Set(infoClass, Little(3, 4)).Status(), STATUS_ACCESS_DENIED) << infoClass;
        EXPECT_EQ(root.Rename(u"\\sub").Status(), STATUS_ACCESS_DENIED);
        EXPECT_EQ(root.RenameInto(root.Id(), u"sub").Status(), STATUS_ACCESS_DENIED);
        EXPECT_EQ(root.Close().Status(), STATUS_SUCCESS);
        EXPECT_TRUE(std::filesystem::exists(share.folder));
    }
    EXPECT_EQ(share.Open(u"\\..", kFolder), STATUS_OBJECT_NAME_INVALID);
}

} // namespace
} // namespace fodr::test
