#include "Wine.h"
#include "fileservice/ListedShare.h"
#include "runtime/CapturedLog.h"

#include <thread>

namespace fodr::test {
namespace {

using namespace nt;

size_t Count(const CapturedLog &log, const std::string &text)
{
    auto lines = log.Lines();
    return static_cast<size_t>(std::count_if(
        lines.begin(), lines.end(), [&](const std::string &line) { return line.ends_with(": " + text); }));
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

    // In the middle of a listing, which is of the old list and isn't kept.
    share.device->UpdateAllowAccessFileList({"d"});
    share.Put("e", "");
    share.files->meanwhile = [&] { share.device->UpdateAllowAccessFileList({"e"}); };
    EXPECT_EQ(ListRoot(share), (Names{"c", "b", "a"}));
    EXPECT_EQ(ListRoot(share), (Names{"e", "c", "b", "a"}));
}

TEST(AccessControl, AListOfOneIsNeverCachedAndAnEmptyOneListsNothing)
{
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

TEST(AccessControl, AnUpdateLeavesAListingInProgressWhole)
{
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
