// A share that its owner has made read-only: what an agent asks for changes nothing, whatever it says of
// itself.
#include "fileservice/Share.h"

namespace fodr::test {
namespace {

using namespace nt;
using namespace std::literals;

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

TEST_F(ReadOnlyShare, ReadsAndRefusesEveryChangeOfWhatIsOpen)
{
    const uint64_t folder = share.Create(u"\\F", {.access = MAXIMUM_ALLOWED}).Id();
    for (const uint32_t access : {GENERIC_READ, MAXIMUM_ALLOWED}) {
        File file = share.Create(u"\\a", {.access = access});
        EXPECT_EQ(file.Read(0, 8).Data(), "contents");
        EXPECT_EQ(file.Query(FileStandardInformation).At<int64_t>(8), 8);
        EXPECT_EQ(file.Set(FilePositionInformation, Little(3)).Status(), STATUS_SUCCESS);
        EXPECT_EQ(file.Lock(RDP_LOWIO_OP_SHAREDLOCK, {{0, 1}}).Status(), STATUS_SUCCESS);

        EXPECT_EQ(file.Write(0, "x").Status(), kProtected);
        EXPECT_EQ(file.Write(UINT64_MAX, "").Status(), kProtected);
        for (const uint32_t infoClass :
             {FileBasicInformation, 15u, FileDispositionInformation, FileAllocationInformation,
              FileEndOfFileInformation, 29u, 32u, 33u, 39u, FileDispositionInformationEx,
              FileCaseSensitiveInformation, 1000u})
            EXPECT_EQ(file.Set(infoClass, std::string(40, '\1')).Status(), kProtected) << infoClass;
        EXPECT_EQ(file.Rename(u"\\b").Status(), kProtected);
        EXPECT_EQ(file.RenameInto(folder, u"b").Status(), kProtected);
        EXPECT_EQ(file.LinkInto(folder, u"b").Status(), kProtected);
        for (const uint32_t infoClass :
             {FileFsLabelInformation, FileFsControlInformation, FileFsObjectIdInformation})
            EXPECT_EQ(file.Ask(IRP_MJ_SET_VOLUME_INFORMATION,
                               DR_DRIVE_SET_VOLUME_INFORMATION_REQ{infoClass, 8}, std::string(8, 'x'))
                          .Status(),
                      kProtected);
        // Set and delete reparse point, sparse, zero data, compression, object id, encryption, and what
        // nobody has heard of.
        for (const uint32_t code :
             {0x900A4u, 0x900ACu, FSCTL_SET_SPARSE, FSCTL_SET_ZERO_DATA, FSCTL_FODR_ALLOCATE,
              FSCTL_SET_COMPRESSION, 0x90098u, 0x900D7u, 0xFFFFFFFFu})
            EXPECT_EQ(file.Control(code, std::string(16, '\0'), 16).Status(), kProtected) << code;
        EXPECT_NE(file.Control(FSCTL_GET_COMPRESSION, "", 2).Status(), kProtected);
        EXPECT_EQ(file.Close().Status(), STATUS_SUCCESS);
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
