// Shares that show only named files: what may be opened, what the root lists, and that there is no way to the
// neighbours of the listed files.
#include "fileservice/AllowListFileSystem.h"
#include "fileservice/RedirectedDeviceAccessControl.h"
#include "fileservice/Share.h"
#include "platform/Volumes.h"
#include "runtime/CapturedLog.h"

#include <gmock/gmock.h>
#include <thread>

namespace fodr::test {
namespace {

using namespace nt;
using namespace std::literals;

class CountingFileSystem : public AllowListFileSystem {
public:
    CountingFileSystem(const std::string &path, std::shared_ptr<const AllowAccessList> list)
        : AllowListFileSystem(path, std::move(list))
    {}
    NTSTATUS RedirectedQueryDirectoryFile(uint32_t fileId, IO_STATUS_BLOCK *ioStatus, uint8_t **outBuffer,
                                          uint32_t fileInfoClass, bool restartScan, const char16_t *pattern,
                                          bool multiEntry) override
    {
        ++queries;
        if (meanwhile)
            std::exchange(meanwhile, {})();
        return AllowListFileSystem::RedirectedQueryDirectoryFile(fileId, ioStatus, outBuffer, fileInfoClass,
                                                                 restartScan, pattern, multiEntry);
    }
    std::atomic<int> queries{0};
    std::function<void()> meanwhile; // called once, within the next query
};

// A share that shows the names alone.
class ListedShare : public Share {
public:
    explicit ListedShare(const Names &names, bool onlyEntries = false, bool multiEntry = false,
                         IDeviceFilter *filter = nullptr)
    {
        settings.multiEntryDirectoryQuery = multiEntry;
        settings.filterPolicy = filter;
        auto list = std::make_shared<AllowAccessList>(settings.path, names, onlyEntries);
        files = new CountingFileSystem(settings.path, list);
        fileSystem = nullptr;
        device = RCPtr<RedirectedDevice>(
            new RedirectedDeviceAccessControl(std::unique_ptr<IFileSystem>(files), settings, list));
    }
    bool MayOpen(const std::string &relative)
    {
        return device->CheckCreateDriveAccess(settings.path + relative);
    }
    int QueriesSinceLast() { return files->queries.exchange(0); }
    // Asks on until nothing more may come.
    Names ListRoot(const ListingShape &shape = kFullShape)
    {
        File root = Create(u"\\");
        Names names = NamesOf(root.List(shape.infoClass, true, u"\\*"), shape);
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(root.List(shape.infoClass, false).Status(), STATUS_NO_MORE_FILES);
        root.Close();
        return names;
    }

    CountingFileSystem *files;
};

// The texts of the captured lines.
Names LogTexts()
{
    Names texts = CapturedLog::Lines();
    for (std::string &line : texts)
        line.erase(0, line.find(": ") + 2);
    return texts;
}

TEST(AccessControl, OpensTheRootAndWhatTheListCovers)
{
    const Names names = {"a.txt", "F", "sub\\deep.txt"};
    ListedShare open(names), limited(names, true), empty({}); // limited to its entries
    auto expect = [&](bool allowed, bool withinLimit, const Names &paths) {
        for (const std::string &path : paths) {
            EXPECT_EQ(open.MayOpen(path), allowed) << path;
            EXPECT_EQ(limited.MayOpen(path), withinLimit) << path;
            EXPECT_EQ(empty.MayOpen(path), path == "\\" || IsZoneMark(path)) << path;
        }
    };
    expect(true, true,
           {"\\", "\\a.txt", "\\a.txt\\", "\\a.txt:Zone.Identifier", "\\F", "\\F\\x", "\\F/x\\y"});
    expect(true, true, {"\\sub\\deep.txt"}); // a name may hold a path
    // A zone mark may be read of any file.
    expect(true, false, {"\\b.txt:Zone.Identifier", "\\b.txt:ZONE.IDENTIFIER"});
    expect(true, false, {"\\F2\\x"});                     // the text of F begins it: that is meant
    expect(false, false, {"\\F2", "\\F2\\", "2\\a.txt"}); // the last one beside the share's folder
    expect(false, false, {"\\A.txt", "\\f\\x"});          // case counts
    expect(false, false,
           {"", "/a.txt", "\\a.txt:stream", "\\a.txt::$DATA", "\\a.tx", "\\b.txt", "\\G", "\\G\\x", "\\sub"});

    // The root of all has listed files too, and one that ends in a separator gets no other.
    AllowAccessList all("\\??\\", {"etc"}, false);
    EXPECT_TRUE(all.IsRoot("\\??\\\\"));
    EXPECT_TRUE(all.Covers("\\??\\\\etc"));
    EXPECT_TRUE(all.Covers("\\??\\\\etc\\hosts"));
    EXPECT_FALSE(all.Covers("\\??\\\\tmp"));
    EXPECT_EQ(all.NameOf("\\??\\\\etc"), "etc");
    EXPECT_TRUE(AllowAccessList("\\??\\C:\\", {"a"}, false).IsRoot("\\??\\C:\\"));
}

TEST(AccessControl, ARefusedOpenSaysSoAndDoesNothing)
{
    RefusingFilter filter;
    ListedShare share({"a.txt"}, false, false, &filter);
    CapturedLog log(LOG_LEVEL_DEBUG);
    EXPECT_EQ(share.Open(u"\\new.txt", {.disposition = FILE_CREATE, .options = FILE_NON_DIRECTORY_FILE}),
              STATUS_ACCESS_DENIED);
    share.MayOpen("\\x:zone.identifier");
    std::string path = share.settings.path + "\\new.txt";
    std::string mark = share.settings.path + "\\x:zone.identifier";
    EXPECT_EQ(LogTexts(),
              (Names{"Absolute path = [" + path + "].\n", "File/subfolder name = [" + path + "].\n",
                     "File/Subfolder [" + path + "] cannot be accessed.", "Absolute path = [" + mark + "].\n",
                     "Bypass check for file = [" + mark + "].\n"}));
    EXPECT_EQ(filter.asked, 1); // all the same
    EXPECT_FALSE(share.Exists("new.txt"));
}

TEST(AccessControl, TheRootListsTheNamedFilesTheLastFirst)
{
    for (bool multiEntry : {false, true}) {
        ListedShare share({"b.txt", "F", "gone", "a.txt"}, false, multiEntry);
        std::filesystem::create_directory(share.folder / "F");
        for (const char *name : {"a.txt", "b.txt", "c.txt", "F/x", "F/y"})
            share.Put(name, name);
        for (ListingShape shape : ListingShapes(multiEntry)) {
            shape.isMany = false; // entries of one query each
            if (shape.infoClass > FileNamesInformation)
                continue; // not chained
            // At first one query for each name and those after them; then the cache has all but the last.
            for (int queries : {6, 1}) {
                EXPECT_EQ(share.ListRoot(shape), (Names{"a.txt", "F", "b.txt"})) << shape.infoClass;
                EXPECT_EQ(share.QueriesSinceLast(), queries) << shape.infoClass;
            }
        }
        // Below a listed folder the directory is the real one.
        File below = share.Create(u"\\F");
        EXPECT_EQ(below.List(kFullShape.infoClass, true, u"\\F\\y").Status(), STATUS_SUCCESS);
        EXPECT_EQ(below.List(kFullShape.infoClass, true).Status(), STATUS_SUCCESS);
    }
}

TEST(AccessControl, WhatAnUpdateDoesToTheCache)
{
    ListedShare share({"a", "b"});
    for (const char *name : {"a", "b", "c", "e"})
        share.Put(name, "");
    share.ListRoot();
    CapturedLog log(LOG_LEVEL_TRACE);
    share.device->UpdateAllowAccessFileList({"b", "a", "b"});
    share.QueriesSinceLast();
    EXPECT_EQ(share.ListRoot(), (Names{"b", "a"}));
    EXPECT_EQ(share.QueriesSinceLast(), 1); // the second continuation
    share.device->UpdateAllowAccessFileList({"b", "c", "c"});
    EXPECT_EQ(share.ListRoot(), (Names{"c", "b", "a"}));
    EXPECT_EQ(share.QueriesSinceLast(), 5);
    EXPECT_EQ(share.Open(u"\\c"), STATUS_SUCCESS);
    for (const std::string &text : {std::string("Find cached file info, InfoClass:2, status:0x0.\n"),
                                    "File is added in access list: (" + share.settings.path + "\\c)\n"})
        EXPECT_THAT(LogTexts(), testing::Contains(text).Times(1));

    // In the middle of a listing, which is of the old list and isn't kept.
    share.device->UpdateAllowAccessFileList({"d"});
    share.files->meanwhile = [&] { share.device->UpdateAllowAccessFileList({"e"}); };
    EXPECT_EQ(share.ListRoot(), (Names{"c", "b", "a"}));
    EXPECT_EQ(share.ListRoot(), (Names{"e", "c", "b", "a"}));
}

TEST(AccessControl, ListsThatAreTooShortForTheCache)
{
    ListedShare one({"a"}), none({}), gone({"x", "y"});
    for (int i = 0; i < 2; ++i) {
        one.Put("a", "");
        none.Put("a", "");
        EXPECT_EQ(one.ListRoot(), Names{"a"});
        EXPECT_EQ(one.QueriesSinceLast(), 3);
    }
    one.device->UpdateAllowAccessFileList({"b"});
    one.Put("b", "");
    CapturedLog log(LOG_LEVEL_INFO);
    Completion nothing = none.Create(u"\\").List(kFullShape.infoClass, true, u"\\*");
    EXPECT_EQ(nothing.Status(), STATUS_NO_MORE_FILES);
    EXPECT_EQ(gone.Create(u"\\").List(kFullShape.infoClass, true, u"\\*").Status(), STATUS_NO_SUCH_FILE);
    // A class without an offset to the next entry isn't chained.
    one.Create(u"\\").List(FileIdBothDirectoryInformation, true, u"\\*");
    const std::string failed = "Failed to retrieve dragged file = ";
    EXPECT_THAT(LogTexts(), testing::ElementsAre("Allowed access list is empty.\n",
                                                 failed + "[x], fileInfoClass = 2, status = 0xc000000f",
                                                 failed + "[y], fileInfoClass = 2, status = 0xc000000f",
                                                 "Allowed access info length = 0.\n", "Buffer is empty.\n",
                                                 testing::StartsWith("Allowed access info length = "),
                                                 "Wrong file info class(37)in IRP_MJ_DEVICE_CONTROL.\n"));
}

TEST(AccessControl, AnUpdateLeavesAListingInProgressWhole)
{
    Names names;
    for (int i = 0; i < 40; ++i)
        names.push_back("file" + std::to_string(i));
    ListedShare share({names[0], names[1]});
    for (const std::string &name : names)
        share.Put(name, "");
    std::atomic<size_t> listed{0};
    std::atomic<bool> isWhole{false};
    std::thread updater([&] {
        for (size_t i = 2; i < names.size(); ++i) {
            for (size_t before = listed; listed == before;)
                std::this_thread::yield();
            share.device->UpdateAllowAccessFileList({names[i]});
        }
        isWhole = true;
    });
    // Each listing is the list of one moment: the names up to some one, in falling order.
    for (size_t last = 2; !isWhole; ++listed) {
        Names seen = share.ListRoot();
        EXPECT_GE(seen.size(), std::exchange(last, seen.size()));
        EXPECT_TRUE(seen.size() <= names.size() && std::equal(seen.rbegin(), seen.rend(), names.begin()));
    }
    updater.join();
}

// Neighbours of the listed files, and every way to them. None of it may change them.
class AccessControlNeighbours : public testing::TestWithParam<bool> {
protected:
    AccessControlNeighbours() : share({"a.txt", "F", "gone.txt"}, true, GetParam())
    {
        for (const char *folder : {"F", "Fellow", "Gadget"})
            std::filesystem::create_directory(share.folder / folder);
        if (!kCaselessNames) // else these are the listed files themselves
            neighbours.insert(neighbours.end(), {"GONE.TXT", "A.TXT"});
        for (const std::string &name : neighbours)
            share.Put(name, name);
        share.Put("a.txt", "a.txt");
        share.Put("F/in", "F/in");
    }
    void TearDown() override
    {
        for (const std::string &name : neighbours)
            EXPECT_EQ(share.Contents(name), name);
        EXPECT_FALSE(share.Exists("new.txt"));
    }

    // By every prefix to every name with every suffix; "new.txt" isn't there.
    static std::vector<std::u16string> WaysToThem()
    {
        std::vector<std::u16string> ways = {u"\\Fellow",      u"\\Gadget",   u"\\F\\..", u"\\.",
                                            u"\\SECRE~1.TXT", u"secret.txt", u"2\\out"};
        for (std::u16string prefix : {u"\\", u"/", u"\\\\", u"\\.\\", u"\\..\\", u"\\F\\..\\", u"\\F/../",
                                      u"\\f\\..\\", u"\\a.txt\\..\\", u"\\F:x\\..\\"}) {
            for (std::u16string name : {u"secret.txt", u"SECRET.TXT", u"A.TXT", u"GONE.TXT", u"new.txt",
                                        u"Fellow\\x", u"Fellow\\new", u"Gadget\\x"}) {
                for (const char16_t *suffix : {u"", u"\\", u":s", u"::$DATA", u":Zone.Identifier"})
                    ways.push_back(prefix + name + suffix);
            }
        }
        return ways;
    }

    const bool kCaselessNames = platform::LocalNamesEqual("a", "A");
    Names neighbours = {"secret.txt", "Fellow/x", "Gadget/x"};
    ListedShare share;
};
INSTANTIATE_TEST_SUITE_P(, AccessControlNeighbours, testing::Bool());

TEST_P(AccessControlNeighbours, NoFormOfTheirNamesOpensThem)
{
    for (const std::u16string &form : WaysToThem()) {
        for (uint32_t disposition : {FILE_OPEN, FILE_OVERWRITE, FILE_CREATE, FILE_SUPERSEDE, FILE_OPEN_IF})
            EXPECT_TRUE(IsError(share.Open(form, {.disposition = disposition}))) << WireText(form);
        EXPECT_TRUE(IsError(share.Open(form, {.access = FILE_READ_ATTRIBUTES}))) << WireText(form);
    }
    // The listed name that is gone makes a file of its own, beside the one of another case.
    EXPECT_TRUE(IsError(share.Open(u"\\gone.txt")));
    EXPECT_EQ(share.Open(u"\\gone.txt", {.disposition = FILE_OVERWRITE_IF}), STATUS_SUCCESS);
    EXPECT_EQ(share.Create(u"\\a.txt").Read(0, 9).Data(), "a.txt");
    EXPECT_EQ(share.Open(u"\\F\\new", {.disposition = FILE_CREATE}), STATUS_SUCCESS);
}

TEST_P(AccessControlNeighbours, NoPatternListsThem)
{
    const auto listed = testing::UnorderedElementsAre("a.txt", "F");
    for (const ListingShape &shape : ListingShapes(GetParam())) {
        for (const char16_t *pattern : {u"\\**", u"\\?*", u"\\", u"\\Gadget\\*", u"*", u""})
            EXPECT_THAT(share.Create(u"\\").ListAll(shape, pattern), listed) << shape.infoClass;
    }
    auto ask = [&](uint32_t infoClass, std::u16string_view pattern) {
        return share.Create(u"\\").List(infoClass, true, pattern).Status();
    };
    for (const char16_t *pattern : {u"\\secret.txt", u"\\s*", u"\\gone.txt", u"\\."})
        EXPECT_EQ(ask(FileNamesInformation, pattern), STATUS_NO_SUCH_FILE) << WireText(pattern);
    EXPECT_EQ(ask(kFullShape.infoClass, u"\\A.TXT"), kCaselessNames ? STATUS_SUCCESS : STATUS_NO_SUCH_FILE);
    EXPECT_EQ(ask(FileBothDirectoryInformation, u"\\F"), STATUS_SUCCESS);
    EXPECT_EQ(ask(60, u"\\F"), STATUS_INVALID_INFO_CLASS);
}

TEST_P(AccessControlNeighbours, NothingIsRenamedOntoThemOrMadeBesideThem)
{
    for (const char16_t *source : {u"\\a.txt", u"\\F\\in", u"\\"}) {
        File file = share.Create(source, {.access = DELETE_ACCESS | FILE_READ_ATTRIBUTES});
        ASSERT_EQ(file.created.Status(), STATUS_SUCCESS);
        for (const std::u16string &target : WaysToThem())
            EXPECT_TRUE(IsError(file.Rename(target).Status())) << WireText(target);
        for (const std::u16string &target : {u"\\??\\/tmp/fodr-out"s, u"/tmp/fodr-out"s, u"\\gone.txt:s"s,
                                             u"\\"s, u"\\Fellow\0\\x"s, u"\\F\\new\0x"s})
            EXPECT_EQ(file.Rename(target).Status(), STATUS_ACCESS_DENIED) << WireText(target);
        for (const size_t noName : {0u, 1u}) // would cut the root's own name
            EXPECT_EQ(
                file.Set(FileRenameInformation, "\1\0"s + Little(noName, 4) + WireText(u"\\x")).Status(),
                STATUS_ACCESS_DENIED);
        EXPECT_EQ(file.Set(72, std::string(64, 'x')).Status(), STATUS_INVALID_INFO_CLASS); // a hard link
        EXPECT_TRUE(IsError(file.Set(FileLinkInformation, std::string(64, 'x')).Status()));
        file.Close();
    }
    File folder = share.Create(u"\\F");
    EXPECT_EQ(share.Create(u"\\a.txt").RenameInto(folder.Id(), u"a").Status(), STATUS_INVALID_INFO_CLASS);
    EXPECT_EQ(share.Create(u"\\a.txt").LinkInto(folder.Id(), u"a").Status(), STATUS_INVALID_INFO_CLASS);
    EXPECT_EQ(share.Create(u"\\").RenameInto(folder.Id(), u"a").Status(), STATUS_ACCESS_DENIED);
    File file = share.Create(u"\\F\\in", {.access = DELETE_ACCESS});
    EXPECT_EQ(file.Rename(u"\\F\\out").Status(), STATUS_SUCCESS);
    EXPECT_EQ(file.Rename(u"\\gone.txt").Status(), STATUS_SUCCESS);
    EXPECT_EQ(share.Contents("gone.txt"), "F/in");
}

TEST_P(AccessControlNeighbours, TheRootItselfIsNotChanged)
{
    EXPECT_EQ(share.Open(u"\\", {.options = FILE_DELETE_ON_CLOSE}), STATUS_ACCESS_DENIED);
    File root = share.Create(u"\\", {.access = GENERIC_ALL});
    EXPECT_EQ(root.Set(FileDispositionInformation, "\1").Status(), STATUS_ACCESS_DENIED);
    EXPECT_EQ(root.Set(FileBasicInformation, std::string(40, '\0')).Status(), STATUS_ACCESS_DENIED);
    EXPECT_EQ(root.Control(FSCTL_GET_COMPRESSION, "", 2).Status(), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(root.Close().Status(), STATUS_SUCCESS);
}

// The mark of a file that isn't listed can be read. Nothing of its file is made, told or changed.
TEST(AccessControl, AForeignMarkIsReadAndNothingElse)
{
    ListedShare share({"a.txt"});
    for (const char *name : {"a.txt", "b.txt", "bare.txt"})
        share.Put(name, name);
    constexpr CreateArguments kReads{.access = GENERIC_READ, .disposition = FILE_OPEN_IF};
    for (const char16_t *own : {u"\\a.txt:Zone.Identifier", u"\\a.txt:ZONE.identifier"}) {
        File mark = share.Create(own, {.disposition = FILE_OPEN_IF});
        if (mark.created.Status() == STATUS_OBJECT_NAME_INVALID)
            GTEST_SKIP() << "no streams here";
        EXPECT_EQ(mark.Write(0, "origin").Status(), STATUS_SUCCESS);
        EXPECT_EQ(mark.Query(FileBasicInformation).Status(), STATUS_SUCCESS);
        mark.Close();
    }
    {
        Share owner([&](RedirectedDeviceSettings &settings) { settings.path = share.settings.path; });
        File made = owner.Create(u"\\b.txt:Zone.Identifier", {.disposition = FILE_CREATE});
        EXPECT_EQ(made.Write(0, "origin").Status(), STATUS_SUCCESS);
        made.Close();
    }
    const auto before = std::filesystem::last_write_time(share.folder / "b.txt");
    const std::u16string marked = u"\\b.txt:Zone.Identifier";
    for (const std::u16string &path : {marked, u"\\bare.txt:Zone.Identifier"s, u"\\new:Zone.Identifier"s,
                                       u"\\none\\new:Zone.Identifier"s, u"\\:Zone.Identifier"s}) {
        const NTSTATUS found = path == marked ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
        EXPECT_EQ(share.Open(path, kReads), found) << WireText(path);
        EXPECT_EQ(share.Open(path, {.access = MAXIMUM_ALLOWED}), found) << WireText(path);
        for (uint32_t right : {FILE_WRITE_DATA, FILE_APPEND_DATA, FILE_WRITE_ATTRIBUTES, FILE_WRITE_EA,
                               DELETE_ACCESS, WRITE_DAC, GENERIC_WRITE, GENERIC_ALL})
            EXPECT_EQ(share.Open(path, {.access = GENERIC_READ | right}), STATUS_ACCESS_DENIED);
        for (uint32_t disposition : {FILE_SUPERSEDE, FILE_CREATE, FILE_OVERWRITE, FILE_OVERWRITE_IF})
            EXPECT_EQ(share.Open(path, {.access = GENERIC_READ, .disposition = disposition}),
                      STATUS_ACCESS_DENIED);
        EXPECT_EQ(share.Open(path, {.access = GENERIC_READ, .options = FILE_DELETE_ON_CLOSE}),
                  STATUS_ACCESS_DENIED);
    }
    File mark = share.Create(marked, {.access = MAXIMUM_ALLOWED});
    EXPECT_EQ(mark.Read(0, 6).Data(), "origin");
    const Completion size = mark.Query(FileStandardInformation);
    EXPECT_EQ(size.At<int64_t>(8), 6);
    EXPECT_EQ(size.At<uint32_t>(16), 1u);
    EXPECT_TRUE(IsError(mark.Write(0, "x").Status()));
    for (uint32_t infoClass = 1; infoClass < 80; ++infoClass) {
        if (infoClass != FileStandardInformation) {
            EXPECT_EQ(mark.Query(infoClass).Status(), STATUS_ACCESS_DENIED) << infoClass;
        }
        EXPECT_TRUE(IsError(mark.Set(infoClass, std::string(40, '\1')).Status())) << infoClass;
    }
    EXPECT_EQ(mark.Control(FSCTL_GET_COMPRESSION, "", 2).Status(), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(mark.Close().Status(), STATUS_SUCCESS);
    EXPECT_EQ(share.Contents("b.txt"), "b.txt");
    EXPECT_EQ(std::filesystem::last_write_time(share.folder / "b.txt"), before);
    EXPECT_FALSE(share.Exists("new"));
}

} // namespace
} // namespace fodr::test
