#include "fileservice/ListedShare.h"
#include "platform/LocalPath.h"

namespace fodr::test {
namespace {

using namespace nt;

// Neighbours of the listed files, and every way to them.
class AccessControlNeighbours : public ::testing::TestWithParam<bool> {
protected:
    AccessControlNeighbours() : share({"a.txt", "F", "gone.txt"}, true, GetParam())
    {
        for (const char *folder : {"F", "Fellow", "Gadget"})
            std::filesystem::create_directory(share.folder / folder);
        for (const char *name : {"a.txt", "secret.txt", "F/in", "Fellow/x", "Gadget/x"})
            share.Put(name, name);
        if (!kCaselessNames) {
            share.Put("GONE.TXT", "GONE.TXT");
            share.Put("A.TXT", "A.TXT");
        }
    }
    std::string Rename(std::u16string_view target)
    {
        std::string name = WireText(target);
        std::string record(kWireSize<RDP_FILE_RENAME_INFORMATION>, '\0');
        StoreRecord(RDP_FILE_RENAME_INFORMATION{.ReplaceIfExists = 1,
                                                .FileNameLength = static_cast<uint32_t>(name.size())},
                    reinterpret_cast<uint8_t *>(record.data()));
        return record + name;
    }
    void ExpectNeighboursUntouched()
    {
        for (const char *name : {"secret.txt", "Fellow/x", "Gadget/x"})
            EXPECT_EQ(share.Contents(name), name);
        if (!kCaselessNames) {
            EXPECT_EQ(share.Contents("GONE.TXT"), "GONE.TXT");
            EXPECT_EQ(share.Contents("A.TXT"), "A.TXT");
        }
    }

    // Where these are the listed files themselves, they aren't neighbours.
    const bool kCaselessNames = platform::LocalNamesEqual("a", "A");
    ListedShare share;
};
INSTANTIATE_TEST_SUITE_P(, AccessControlNeighbours, ::testing::Bool());

TEST_P(AccessControlNeighbours, NoFormOfTheirNamesOpensThem)
{
    const std::u16string_view kForms[] = {
        u"\\secret.txt",
        u"\\SECRET.TXT",
        u"\\secret.txt\\",
        u"/secret.txt",
        u"\\secret.txt:s",
        u"\\secret.txt::$DATA",
        u"\\A.TXT",
        u"\\.\\secret.txt",
        u"\\secret.txt:Zone.Identifier",
        u"\\\\secret.txt",
        u"\\F\\..\\secret.txt",
        u"\\F/../secret.txt",
        u"\\Fellow",
        u"\\Fellow\\x",
        u"\\F\\..\\Fellow\\x",
        u"\\Gadget",
        u"\\Gadget\\x",
        u"\\a.txt\\..\\secret.txt",
        u"\\f\\..\\Gadget\\x",
        u"\\..\\secret.txt",
        u"\\GONE.TXT",
        u"\\gone.txt",
        u"\\F\\..",
        u"\\new.txt",
        u"\\SECRE~1.TXT",
        u"\\.",
        u"\\F:x\\..\\Gadget\\x",
    };
    for (std::u16string_view form : kForms) {
        bool listed = form == u"\\gone.txt"; // and may be made anew
        for (uint32_t disposition : {FILE_OPEN, FILE_OVERWRITE, FILE_CREATE, FILE_SUPERSEDE, FILE_OPEN_IF}) {
            if (listed && disposition != FILE_OPEN)
                continue;
            EXPECT_TRUE(IsError(share.Open(form, {.disposition = disposition}))) << Narrow(form);
        }
        EXPECT_TRUE(IsError(share.Open(form, {.access = FILE_READ_ATTRIBUTES})));
    }
    ExpectNeighboursUntouched();
    EXPECT_FALSE(share.Exists("new.txt"));
    // The listed name that is gone makes a file of its own, beside the one of another case.
    EXPECT_EQ(share.Open(u"\\gone.txt", {.disposition = FILE_OVERWRITE_IF}), STATUS_SUCCESS);
    ExpectNeighboursUntouched();
    EXPECT_EQ(share.Create(u"\\a.txt").Read(0, 9).Data(), "a.txt");
    EXPECT_EQ(share.Open(u"\\F\\new", {.disposition = FILE_CREATE}), STATUS_SUCCESS);
}

TEST_P(AccessControlNeighbours, NoPatternListsThem)
{
    for (uint32_t infoClass : {1u, 2u, 3u, 12u, 37u, 38u}) {
        for (const char16_t *pattern : {u"\\**", u"\\?*", u"\\*.*", u"\\", u"\\Gadget\\*", u"*", u""}) {
            File root = share.Create(u"\\");
            std::string seen;
            Completion answer = root.List(infoClass, true, pattern);
            for (int i = 0; answer.Status() == STATUS_SUCCESS && i < 9; ++i) {
                std::string data = answer.Data();
                std::erase(data, '\0');
                seen += data;
                for (const char *name : {"secret", "GONE", "A.TXT", "Fellow", "Gadget"})
                    EXPECT_EQ(data.find(name), std::string::npos) << infoClass;
                answer = root.List(infoClass, false);
            }
            // The listed ones are there.
            EXPECT_NE(seen.find("a.txt"), std::string::npos) << infoClass;
            root.Close();
        }
    }
    struct Case {
        const char16_t *pattern;
        uint32_t infoClass;
        NTSTATUS status;
    };
    for (const Case &test : {Case{u"\\secret.txt", 12, STATUS_NO_SUCH_FILE},
                             {u"\\s*", 2, STATUS_NO_SUCH_FILE},
                             {u"\\A.TXT", 2, kCaselessNames ? STATUS_SUCCESS : STATUS_NO_SUCH_FILE},
                             {u"\\gone.txt", 2, STATUS_NO_SUCH_FILE},
                             {u"\\.", 2, STATUS_NO_SUCH_FILE},
                             {u"\\F", 3, STATUS_SUCCESS},
                             {u"\\F", 60, STATUS_INVALID_INFO_CLASS}})
        EXPECT_EQ(share.Create(u"\\").List(test.infoClass, true, test.pattern).Status(), test.status);
    // A listing from the cache has one continuation; no further call falls through to the directory.
    ListRoot(share);
    File root = share.Create(u"\\");
    share.QueriesSinceLast();
    root.List(kFull.infoClass, true, u"\\*");
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(root.List(kFull.infoClass, false).Status(), STATUS_NO_MORE_FILES);
    EXPECT_EQ(share.QueriesSinceLast(), 2); // the first continuation is the cache's own
}

TEST_P(AccessControlNeighbours, NothingIsRenamedOntoThemOrMadeBesideThem)
{
    const std::u16string_view kTargets[] = {u"\\secret.txt",
                                            u"\\SECRET.TXT",
                                            u"\\new.txt",
                                            u"\\a2.txt",
                                            u"\\Fellow\\x",
                                            u"\\Fellow\\new",
                                            u"\\Gadget\\x",
                                            u"\\F\\..\\secret.txt",
                                            u"\\..\\out",
                                            u"secret.txt",
                                            u"2\\out",
                                            u"\\??\\/tmp/fodr-out",
                                            u"/tmp/fodr-out",
                                            u"\\gone.txt:s",
                                            std::u16string_view(u"\\Fellow\0\\x", 10),
                                            u"\\"};
    for (std::u16string_view target : kTargets) {
        for (const char16_t *source : {u"\\a.txt", u"\\F\\in", u"\\"}) {
            File file = share.Create(source, {.access = DELETE_ACCESS | FILE_READ_ATTRIBUTES});
            ASSERT_EQ(file.created.Status(), STATUS_SUCCESS);
            EXPECT_TRUE(IsError(file.Set(FileRenameInformation, Rename(target)).Status())) << Narrow(target);
            for (uint32_t infoClass : {11u, 65u, 72u}) // hard links and the newer forms
                EXPECT_EQ(file.Set(infoClass, std::string(64, 'x')).Status(), STATUS_ACCESS_DENIED);
            file.Close();
        }
    }
    ExpectNeighboursUntouched();
    File file = share.Create(u"\\F\\in", {.access = DELETE_ACCESS});
    EXPECT_EQ(file.Set(FileRenameInformation, Rename(u"\\F\\out")).Status(), STATUS_SUCCESS);
    EXPECT_EQ(file.Set(FileRenameInformation, Rename(u"\\gone.txt")).Status(), STATUS_SUCCESS);
    EXPECT_EQ(share.Contents("gone.txt"), "F/in");
    ExpectNeighboursUntouched();
}

TEST_P(AccessControlNeighbours, TheRootItselfIsNotChanged)
{
    EXPECT_EQ(share.Open(u"\\", {.options = FILE_DELETE_ON_CLOSE}), STATUS_ACCESS_DENIED);
    File root = share.Create(u"\\", {.access = GENERIC_ALL});
    EXPECT_EQ(root.Set(FileDispositionInformation, "\1").Status(), STATUS_ACCESS_DENIED);
    EXPECT_EQ(root.Set(FileBasicInformation, std::string(40, '\0')).Status(), STATUS_ACCESS_DENIED);
    EXPECT_EQ(root.Control(0x9C040, std::string(2, '\1'), 0).Status(), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(root.Close().Status(), STATUS_SUCCESS);
}

} // namespace
} // namespace fodr::test
