#include "fileservice/IRedirectedDevice.h"
#include "fileservice/Share.h"
#include "rdpdr/wire/RdpdrStream.h"
#include "runtime/CapturedLog.h"

namespace fodr::test {
namespace {

using namespace nt;
using namespace std::literals;

// As it comes from an agent that opens the root: without a path.
constexpr DR_CREATE_REQ kOpenRoot{GENERIC_READ, 0, 0, 7, FILE_OPEN, FILE_DIRECTORY_FILE, 0};

TEST(Create, AnswersSuccessAndFailureInOneForm)
{
    Share share;
    File root(share, share.Ask(share.Request(0, IRP_MJ_CREATE, 0, kOpenRoot)));
    EXPECT_EQ(root.created.Status(), STATUS_SUCCESS);
    EXPECT_EQ(root.created.Size(), 21u);
    EXPECT_NE(root.Id(), 0u);
    EXPECT_EQ(root.created.Information(), FILE_OPENED);
    EXPECT_EQ(root.List(FileNamesInformation, true, u"\\*").Status(), STATUS_SUCCESS);
    auto expectFailure = [&](std::u16string_view path, uint32_t disposition, NTSTATUS status) {
        File missing = share.Create(path, {.disposition = disposition});
        EXPECT_EQ(missing.created.Status(), status);
        EXPECT_EQ(missing.created.Size(), 21u);
        EXPECT_EQ(missing.Id(), 0u);
    };
    expectFailure(u"\\none.txt", FILE_OPEN, STATUS_OBJECT_NAME_NOT_FOUND);
    expectFailure(u"\\..\\passwd", FILE_OPEN, STATUS_OBJECT_NAME_INVALID);
    share.device->SetAvailable(false);
    expectFailure(u"\\made.txt", FILE_CREATE, STATUS_DEVICE_REMOVED); // before any path is read
    EXPECT_FALSE(share.Exists("made.txt"));
    EXPECT_EQ(root.Close().Status(), STATUS_DEVICE_REMOVED);
}

TEST(Create, ReadOnlyStopsOnlyTheMakingOfMissingFiles)
{
    const struct {
        const char16_t *path;
        uint32_t disposition;
        NTSTATUS status;
        uint32_t options = 0;
    } rows[] = {
        {u"\\there.txt", FILE_OPEN_IF, STATUS_SUCCESS},
        {u"\\there.txt", FILE_CREATE, STATUS_OBJECT_NAME_COLLISION},
        {u"\\none.txt", FILE_OPEN_IF, STATUS_ACCESS_DENIED},
        {u"\\none.txt", FILE_CREATE, STATUS_ACCESS_DENIED},
        {u"\\none.txt", FILE_OVERWRITE_IF, STATUS_SUCCESS},
        {u"\\none2.txt", FILE_SUPERSEDE, STATUS_SUCCESS},
        {u"\\there.txt", FILE_OVERWRITE, STATUS_SUCCESS},
        // Refused before any look at the file system.
        {u"\\none.txt", FILE_CREATE, STATUS_NOT_SUPPORTED, FILE_OPEN_BY_FILE_ID},
    };
    Share share([](RedirectedDeviceSettings &settings) { settings.readOnly = true; });
    share.Put("there.txt", "x");
    for (const auto &row : rows) {
        CreateArguments arguments{.disposition = row.disposition, .options = row.options};
        EXPECT_EQ(share.Open(row.path, arguments), row.status) << row.disposition;
    }
}

TEST(Create, AnAppendOpenLosesNoBufferingAndKeepsItsOtherOptions)
{
    constexpr uint32_t kOptions =
        FILE_NO_INTERMEDIATE_BUFFERING | FILE_SEQUENTIAL_ONLY | FILE_SYNCHRONOUS_IO_ALERT;
    Share share;
    share.Put("a", "");
    for (uint32_t access : {FILE_APPEND_DATA, FILE_WRITE_DATA}) {
        File file = share.Create(u"\\a", {.access = access, .options = kOptions});
        uint32_t unbuffered = access == FILE_APPEND_DATA ? 0 : FILE_NO_INTERMEDIATE_BUFFERING;
        EXPECT_EQ(file.Query(FileModeInformation).At<uint32_t>(0),
                  unbuffered | FILE_SEQUENTIAL_ONLY | FILE_SYNCHRONOUS_IO_NONALERT);
    }
}

TEST(Create, TakesNoMoreOfAPathThanThePacketHolds)
{
    Share share;
    share.Put("a", "found");
    std::string path = WireText(u"\\a");
    const struct {
        uint32_t stated;
        std::string payload;
        NTSTATUS status;
    } rows[] = {
        {6, path, STATUS_SUCCESS},
        {4, path, STATUS_SUCCESS},                              // no terminator
        {5, path, STATUS_SUCCESS},                              // odd: the last byte is half of the zero
        {0xFFFFFFFF, path.substr(0, 4), STATUS_SUCCESS},        // zeros follow
        {0xFFFFFFFE, path.substr(0, 3), STATUS_SUCCESS},        // and end a unit
        {100, path + WireText(u"\xD800"), STATUS_SUCCESS},      // ends at its first zero
        {6, WireText(u"\\\xD800"), STATUS_OBJECT_NAME_INVALID}, // half of a pair
        {70000, path.substr(0, 2) + std::string(69998, 'a'), STATUS_NAME_TOO_LONG},
    };
    for (const auto &row : rows) {
        DR_CREATE_REQ create{GENERIC_READ, 0, 0, 7, FILE_OPEN, 0, row.stated};
        File file(share, share.Ask(share.Request(0, IRP_MJ_CREATE, 0, create, row.payload)));
        EXPECT_EQ(file.created.Status(), row.status) << row.stated;
        std::string contents = file.Read(0, 10).Data();
        EXPECT_EQ(contents == "found", row.status == STATUS_SUCCESS) << row.stated;
    }
    // Nor of a root that isn't text.
    Share noText([](RedirectedDeviceSettings &settings) { settings.path += "/\xFF"; });
    EXPECT_EQ(noText.Open(u"\\"), STATUS_OBJECT_NAME_INVALID);
}

TEST(Create, NoPathReachesAFolderWhoseNameOnlyBeginsAsTheRoots)
{
    Share share;
    const std::string neighbour = share.folder.string() + "2";
    std::filesystem::create_directory(neighbour);
    std::ofstream(neighbour + "/x") << "out of reach";
    File mine = share.Made("mine");
    for (const char16_t *path : {u"2\\x", u"2/x", u"2", u".\\x"}) {
        EXPECT_EQ(share.Open(path), STATUS_OBJECT_NAME_INVALID);
        EXPECT_EQ(mine.Rename(path).Status(), STATUS_OBJECT_NAME_INVALID);
    }
    EXPECT_TRUE(share.Exists("mine"));
    std::filesystem::remove_all(neighbour);
}

TEST(Create, AsksTheDeviceFilterWhereTheOpenSaysFileOrFolder)
{
    RefusingFilter filter;
    Share share([&](RedirectedDeviceSettings &settings) { settings.filterPolicy = &filter; });
    share.Put("a", "");
    for (uint32_t option : {FILE_DIRECTORY_FILE, FILE_NON_DIRECTORY_FILE}) {
        File refused = share.Create(u"\\a", {.options = option});
        EXPECT_EQ(refused.created.Status(), STATUS_ACCESS_DENIED);
        EXPECT_EQ(refused.created.Data(), std::string(1, '\0'));
    }
    EXPECT_EQ(share.Open(u"\\a"), STATUS_SUCCESS); // neither option: unchecked
    EXPECT_EQ(filter.asked, 2);

    // Of the whole path: without bytes it is the root with its separator; nothing is cleaned otherwise.
    CapturedLog log(LOG_LEVEL_INFO);
    share.Ask(share.Request(0, IRP_MJ_CREATE, 0, kOpenRoot));
    share.Create(u"\\sub\\\\..\\a", {.options = FILE_NON_DIRECTORY_FILE});
    const std::string refused = "I RedirectedDevice::HandleCreate(): File/Subfolder [" + share.settings.path;
    EXPECT_EQ(CapturedLog::Lines(),
              (Names{refused + "\\] cannot be accessed.", refused + "\\sub\\\\..\\a] cannot be accessed."}));
    filter.inForce = false;
    EXPECT_EQ(share.Open(u"\\a", {.options = FILE_NON_DIRECTORY_FILE}), STATUS_SUCCESS);
    EXPECT_EQ(filter.asked, 4);
}

// Adds the byte 5 to every completion that it is asked for.
class OneBytePreReader : public IPreReader {
public:
    int32_t GetPattern(const DR_DEVICE_IOREQUEST &) const override { return 5; }
    RdpdrStreamPtr BuildPreReadIoCompletion(int32_t pattern, uint32_t deviceId, uint32_t, IFileSystem *,
                                            uint32_t completionId, int32_t ioStatus,
                                            uint8_t **payload) const override
    {
        RdpdrStreamPtr completion = BuildIoCompletion(deviceId, completionId, ioStatus, 2, payload);
        completion->Base()[kPreReadBlock] = static_cast<uint8_t>(pattern);
        return completion;
    }
};

TEST(Create, PreReadBlocksFollowTheFileIdWhenTheAgentCanReadThem)
{
    OneBytePreReader preReader;
    for (bool enabled : {true, false}) {
        Share share([&](RedirectedDeviceSettings &settings) {
            settings.preReader = &preReader;
            settings.preReadEnabled = enabled;
        });
        File file = share.Create(u"\\a", {.disposition = FILE_CREATE});
        EXPECT_NE(file.Id(), 0u);
        EXPECT_EQ(file.created.Data(), enabled ? "\x02\x05" : "\x02");
        Completion set = file.Set(FileBasicInformation, std::string(36, '\0'));
        EXPECT_EQ(set.FileId(), enabled ? file.Id() : 0u); // in the place of Length
        EXPECT_EQ(set.Size(), enabled ? 22u : 21u);
        EXPECT_EQ(file.Write(0, "x").Size(), 21u);
    }
}

// A share that its owner has made read-only: what an agent asks for changes nothing, whatever it says of
// itself.

constexpr NTSTATUS kProtected = STATUS_MEDIA_WRITE_PROTECTED;

class ReadOnlyShare : public testing::Test {
protected:
    ReadOnlyShare()
    {
        std::filesystem::create_directory(share.folder / "F");
        share.Put("a", "contents");
    }
    void TearDown() override
    {
        size_t entries = 0;
        for (const auto &entry : std::filesystem::directory_iterator(share.folder))
            entries += entry.exists();
        EXPECT_EQ(entries, 2u);
        EXPECT_EQ(share.Contents("a"), "contents");
        EXPECT_TRUE(std::filesystem::is_empty(share.folder / "F"));
    }

    Share share{{}, {.readOnly = true}};
};

TEST_F(ReadOnlyShare, OpensForReadingAlone)
{
    const struct {
        std::u16string path;
        CreateArguments how;
        NTSTATUS status;
    } cases[] = {
        {u"\\a", {.access = GENERIC_READ}, STATUS_SUCCESS},
        {u"\\a", {.access = MAXIMUM_ALLOWED}, STATUS_SUCCESS},
        {u"\\a", {.access = GENERIC_READ | FILE_WRITE_ATTRIBUTES}, STATUS_SUCCESS},
        {u"\\a", {.access = FILE_WRITE_ATTRIBUTES}, STATUS_SUCCESS},
        {u"\\a", {.access = GENERIC_READ, .disposition = FILE_OPEN_IF}, STATUS_SUCCESS},
        {u"\\F",
         {.access = GENERIC_READ, .disposition = FILE_OPEN_IF, .options = FILE_DIRECTORY_FILE},
         STATUS_SUCCESS},
        {u"\\none", {.access = GENERIC_READ}, STATUS_OBJECT_NAME_NOT_FOUND},
        {u"\\none", {.access = GENERIC_READ, .disposition = FILE_OPEN_IF}, kProtected},
        {u"\\a:s", {.access = GENERIC_READ, .disposition = FILE_OPEN_IF}, kProtected},
        {u"\\none\\x", {.access = GENERIC_READ, .disposition = FILE_OPEN_IF}, STATUS_OBJECT_PATH_NOT_FOUND},
        {u"\\a", {.access = GENERIC_READ, .options = FILE_DELETE_ON_CLOSE}, kProtected},
        {u"\\F",
         {.access = GENERIC_READ, .disposition = FILE_CREATE, .options = FILE_DIRECTORY_FILE},
         kProtected},
    };
    for (const auto &test : cases)
        EXPECT_EQ(share.Open(test.path, test.how), test.status) << WireText(test.path) << test.how.access;
    for (const char16_t *path : {u"\\a", u"\\F", u"\\none", u"\\a:s", u"\\none:Zone.Identifier"}) {
        for (uint32_t right : {FILE_WRITE_DATA, FILE_APPEND_DATA, FILE_WRITE_EA, FILE_DELETE_CHILD,
                               DELETE_ACCESS, WRITE_DAC, WRITE_OWNER, GENERIC_WRITE, GENERIC_ALL})
            EXPECT_EQ(share.Open(path, {.access = right | FILE_READ_ATTRIBUTES}), kProtected) << right;
        for (uint32_t disposition : {FILE_SUPERSEDE, FILE_CREATE, FILE_OVERWRITE, FILE_OVERWRITE_IF})
            EXPECT_EQ(share.Open(path, {.access = GENERIC_READ, .disposition = disposition}), kProtected);
    }
}

// The agent's own permission, which forbids less and says so in another way, comes first.
TEST(ReadOnlyShares, TheAgentsPolicyIsAskedBefore)
{
    Share share([](RedirectedDeviceSettings &settings) { settings.readOnly = true; }, {.readOnly = true});
    EXPECT_EQ(share.Open(u"\\new", {.disposition = FILE_CREATE}), STATUS_ACCESS_DENIED);
    EXPECT_EQ(share.Open(u"\\new", {.disposition = FILE_OVERWRITE_IF}), kProtected);
    EXPECT_TRUE(std::filesystem::is_empty(share.folder));
}

} // namespace
} // namespace fodr::test
