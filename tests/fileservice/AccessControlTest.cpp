#include "Wine.h"
#include "fileservice/AllowListFileSystem.h"
#include "fileservice/RedirectedDeviceAccessControl.h"
#include "fileservice/Share.h"
#include "platform/LocalPath.h"
#include "runtime/CapturedLog.h"

#include <set>
#include <thread>

namespace fodr::test {
namespace {

using namespace nt;
using Names = std::vector<std::string>;

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
        return AllowListFileSystem::RedirectedQueryDirectoryFile(fileId, ioStatus, outBuffer, fileInfoClass,
                                                                 restartScan, pattern, multiEntry);
    }
    std::atomic<int> queries{0};
};

// A share that shows the names alone.
class ListedShare : public Share {
public:
    explicit ListedShare(const Names &names, bool onlyEntries = false, bool multiEntry = false)
    {
        settings.multiEntryDirectoryQuery = multiEntry;
        auto list = std::make_shared<AllowAccessList>(settings.path, names, onlyEntries);
        auto counting = std::make_unique<CountingFileSystem>(settings.path, list);
        files = counting.get();
        fileSystem = nullptr;
        device =
            RCPtr<RedirectedDevice>(new RedirectedDeviceAccessControl(std::move(counting), settings, list));
    }
    bool MayOpen(const std::string &relative)
    {
        return device->CheckCreateDriveAccess(settings.path + relative);
    }
    int QueriesSinceLast() { return files->queries.exchange(0); }
    NTSTATUS Open(std::u16string_view path, CreateArguments arguments = {})
    {
        File file = Create(path, arguments);
        if (file.Id() != 0)
            file.Close();
        return file.created.Status();
    }

    CountingFileSystem *files;
};

size_t Count(const CapturedLog &log, const std::string &text)
{
    auto lines = log.Lines();
    return static_cast<size_t>(std::count_if(
        lines.begin(), lines.end(), [&](const std::string &line) { return line.ends_with(": " + text); }));
}

std::string Narrow(std::u16string_view text)
{
    return std::string(text.begin(), text.end());
}

struct ClassShape {
    uint32_t infoClass;
    uint32_t nameLength, name;
};
constexpr ClassShape kWireShapes[] = {
    {FileDirectoryInformation, 60, 64},
    {FileFullDirectoryInformation, 60, 68},
    {FileBothDirectoryInformation, 60, 93},
    {FileNamesInformation, 8, 12},
};
constexpr ClassShape kFull = kWireShapes[1];

// The names of a chain. Every entry but the last must tell its own size.
Names NamesOf(const Completion &listing, const ClassShape &shape)
{
    Names names;
    std::string data = listing.Data();
    for (size_t at = 0, next = 1; next != 0 && at < listing.Length(); at += next) {
        next = listing.At<uint32_t>(at);
        std::string wide = data.substr(at + shape.name, listing.At<uint32_t>(at + shape.nameLength));
        EXPECT_EQ(next == 0 ? listing.Length() - at : next, shape.name + wide.size());
        std::string &name = names.emplace_back();
        for (size_t i = 0; i < wide.size(); i += 2)
            name += wide[i];
    }
    return names;
}

Names ListRoot(ListedShare &share, const ClassShape &shape = kFull)
{
    File root = share.Create(u"\\");
    Names names = NamesOf(root.List(shape.infoClass, true, u"\\*"), shape);
    EXPECT_EQ(root.List(shape.infoClass, false).Status(), STATUS_NO_MORE_FILES);
    root.Close();
    return names;
}

TEST(AccessControl, OpensTheRootAndWhatTheListCovers)
{
    struct Case {
        const char *path;
        bool allowed;
        bool withinLimit; // of a share that is limited to its entries
    };
    const Case kCases[] = {
        {"\\", true, true},
        {"", false, false},
        {"\\a.txt", true, true},
        {"\\a.txt\\", true, true},
        {"\\A.txt", false, false}, // case counts
        {"\\a.txt:stream", false, false},
        {"\\a.txt::$DATA", false, false},
        {"/a.txt", false, false},
        {"\\a.tx", false, false},
        {"\\b.txt", false, false},
        {"\\b.txt:Zone.Identifier", true, false}, // a zone mark may be read of any file
        {"\\b.txt:ZONE.IDENTIFIER", true, false},
        {"\\a.txt:Zone.Identifier", true, true},
        {"\\F", true, true},
        {"\\F\\x", true, true},
        {"\\F/x\\y", true, true},
        {"\\F2", false, false},
        {"\\F2\\x", true, false}, // the text of F begins it: that is meant
        {"\\f\\x", false, false},
        {"\\G", false, false},
        {"\\G\\x", false, false},
        {"\\sub\\deep.txt", true, true}, // a name may hold a path
        {"\\sub", false, false},
        {"2\\a.txt", false, false}, // a folder beside the share's
    };
    const Names kNames = {"a.txt", "F", "sub\\deep.txt"};
    ListedShare open(kNames);
    ListedShare limited(kNames, true);
    ListedShare empty({});
    for (const Case &test : kCases) {
        EXPECT_EQ(open.MayOpen(test.path), test.allowed) << test.path;
        EXPECT_EQ(limited.MayOpen(test.path), test.withinLimit) << test.path;
    }
    EXPECT_TRUE(empty.MayOpen("\\"));
    EXPECT_FALSE(empty.MayOpen("\\a.txt"));
    EXPECT_FALSE(empty.MayOpen("\\F\\x"));
}

TEST(AccessControl, ARefusedOpenSaysSoAndDoesNothing)
{
    ListedShare share({"a.txt"});
    CapturedLog log(LOG_LEVEL_DEBUG);
    File refused = share.Create(u"\\new.txt", {.disposition = FILE_CREATE});
    EXPECT_EQ(refused.created.Status(), STATUS_ACCESS_DENIED);
    EXPECT_FALSE(share.Exists("new.txt"));
    std::string path = share.settings.path + "\\new.txt";
    EXPECT_EQ(Count(log, "Absolute path = [" + path + "].\n"), 1u);
    EXPECT_EQ(Count(log, "File/subfolder name = [" + path + "].\n"), 1u);
    EXPECT_EQ(Count(log, "File/Subfolder [" + path + "] cannot be accessed."), 1u);
    share.MayOpen("\\x:zone.identifier");
    EXPECT_EQ(Count(log, "Bypass check for file = [" + share.settings.path + "\\x:zone.identifier].\n"), 1u);
}

TEST(AccessControl, TheRootListsTheNamedFilesTheLastFirst)
{
    FODR_SKIP_ON_WINE("a folder is listed by its first pattern alone");
    for (bool multiEntry : {false, true}) {
        ListedShare share({"b.txt", "F", "gone", "a.txt"}, false, multiEntry);
        std::filesystem::create_directory(share.folder / "F");
        for (const char *name : {"a.txt", "b.txt", "c.txt", "F/x", "F/y"})
            share.Put(name, name);
        for (ClassShape shape : kWireShapes) {
            if (multiEntry && shape.infoClass == FileBothDirectoryInformation)
                shape.name = 94; // the native form
            SCOPED_TRACE(shape.infoClass);
            EXPECT_EQ(ListRoot(share, shape), (Names{"a.txt", "F", "b.txt"}));
            EXPECT_EQ(share.QueriesSinceLast(), 5); // one for each name, and the continuation's
            EXPECT_EQ(ListRoot(share, shape), (Names{"a.txt", "F", "b.txt"}));
            EXPECT_EQ(share.QueriesSinceLast(), 0); // from the cache, its continuation as well
        }
        // Below a listed folder the directory is the real one.
        File below = share.Create(u"\\F");
        EXPECT_EQ(below.List(FileFullDirectoryInformation, true, u"\\F\\y").Status(), STATUS_SUCCESS);
        EXPECT_EQ(below.List(FileFullDirectoryInformation, true).Status(), STATUS_SUCCESS);
    }
}

TEST(AccessControl, WhatAnUpdateDoesToTheCache)
{
    FODR_SKIP_ON_WINE("a folder is listed by its first pattern alone");
    ListedShare share({"a", "b"});
    for (const char *name : {"a", "b", "c"})
        share.Put(name, "");
    ListRoot(share);
    CapturedLog log(LOG_LEVEL_TRACE);
    share.device->UpdateAllowAccessFileList({"b", "a", "b"});
    share.QueriesSinceLast();
    EXPECT_EQ(ListRoot(share), (Names{"b", "a"}));
    EXPECT_EQ(share.QueriesSinceLast(), 0);
    EXPECT_EQ(Count(log, "Find cached file info, InfoClass:2, status:0x0.\n"), 1u);
    share.device->UpdateAllowAccessFileList({"b", "c", "c"});
    EXPECT_EQ(Count(log, "File is added in access list: (" + share.settings.path + "\\c)\n"), 1u);
    EXPECT_EQ(ListRoot(share), (Names{"c", "b", "a"}));
    EXPECT_EQ(share.QueriesSinceLast(), 4);
    EXPECT_EQ(share.Open(u"\\c"), STATUS_SUCCESS);
}

TEST(AccessControl, AListOfOneIsNeverCachedAndAnEmptyOneListsNothing)
{
    FODR_SKIP_ON_WINE("a folder is listed by its first pattern alone");
    ListedShare one({"a"});
    one.Put("a", "");
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(ListRoot(one), Names{"a"});
        EXPECT_EQ(one.QueriesSinceLast(), 2);
    }
    CapturedLog log(LOG_LEVEL_INFO);
    ListedShare none({});
    none.Put("hidden", "");
    File root = none.Create(u"\\");
    EXPECT_EQ(root.List(kFull.infoClass, true, u"\\*").Status(), STATUS_NO_MORE_FILES);
    EXPECT_EQ(root.List(kFull.infoClass, false).Status(), STATUS_NO_MORE_FILES);
    EXPECT_EQ(Count(log, "Allowed access list is empty.\n"), 1u);

    ListedShare gone({"x", "y"});
    File goneRoot = gone.Create(u"\\");
    EXPECT_EQ(goneRoot.List(kFull.infoClass, true, u"\\*").Status(), STATUS_NO_SUCH_FILE);
    EXPECT_EQ(Count(log, "Failed to retrieve dragged file = [x], fileInfoClass = 2, status = 0xc000000f"),
              1u);
    EXPECT_EQ(Count(log, "Allowed access info length = 0.\n"), 1u);
    EXPECT_EQ(Count(log, "Buffer is empty.\n"), 1u);
    // A class without an offset to the next entry isn't chained.
    one.device->UpdateAllowAccessFileList({"b"});
    one.Put("b", "");
    File oneRoot = one.Create(u"\\");
    oneRoot.List(FileIdBothDirectoryInformation, true, u"\\*");
    EXPECT_EQ(Count(log, "Wrong file info class(37)in IRP_MJ_DEVICE_CONTROL.\n"), 1u);
}

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
            std::set<std::string> seen;
            Completion answer = root.List(infoClass, true, pattern);
            for (int i = 0; answer.Status() == STATUS_SUCCESS && i < 9; ++i) {
                std::string data = answer.Data();
                std::erase(data, '\0');
                seen.insert(data);
                for (const char *name : {"secret", "GONE", "A.TXT", "Fellow", "Gadget"})
                    EXPECT_EQ(data.find(name), std::string::npos) << infoClass;
                answer = root.List(infoClass, false);
            }
            EXPECT_FALSE(seen.empty()) << infoClass; // the listed ones are there
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
    root.List(kFull.infoClass, true, u"\\*");
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(root.List(kFull.infoClass, false).Status(), STATUS_NO_MORE_FILES);
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

TEST(AccessControl, AnUpdateLeavesAListingInProgressWhole)
{
    FODR_SKIP_ON_WINE("a folder is listed by its first pattern alone");
    Names names;
    for (int i = 0; i < 40; ++i)
        names.push_back("file" + std::to_string(i));
    ListedShare share({names[0], names[1]});
    for (const std::string &name : names)
        share.Put(name, "");
    std::atomic<size_t> listed{0};
    std::thread updater([&] {
        for (size_t i = 2; i < names.size(); ++i) {
            for (size_t before = listed; listed == before;)
                std::this_thread::yield();
            share.device->UpdateAllowAccessFileList({names[i]});
        }
    });
    // Each listing is the list of one moment: the names up to some one, in falling order.
    for (size_t last = 2; last < names.size(); ++listed) {
        File root = share.Create(u"\\");
        Names seen = NamesOf(root.List(kFull.infoClass, true, u"\\*"), kFull);
        root.Close();
        ASSERT_GE(seen.size(), last);
        last = seen.size();
        std::reverse(seen.begin(), seen.end());
        ASSERT_EQ(seen, Names(names.begin(), names.begin() + static_cast<ptrdiff_t>(last)));
    }
    updater.join();
}

TEST(AccessControl, TheRootOfAllHasListedFilesToo)
{
    AllowAccessList list("\\??\\", {"etc"}, false);
    EXPECT_TRUE(list.IsRoot("\\??\\\\"));
    EXPECT_TRUE(list.Covers("\\??\\\\etc"));
    EXPECT_TRUE(list.Covers("\\??\\\\etc\\hosts"));
    EXPECT_FALSE(list.Covers("\\??\\\\tmp"));
    EXPECT_EQ(list.NameOf("\\??\\\\etc"), "etc");
    AllowAccessList drive("\\??\\C:\\", {"a"}, false); // a root that ends in a separator gets no other
    EXPECT_TRUE(drive.IsRoot("\\??\\C:\\"));
}

} // namespace
} // namespace fodr::test
