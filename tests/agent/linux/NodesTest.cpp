// What the kernel knows: places of nodes through renames, facts as POSIX shows them, statuses as errnos.
#include "agent/IoResult.h"
#include "agent/ScriptedPlugin.h"
#include "agent/fuse/DirectoryCache.h"
#include "agent/fuse/NodeTable.h"
#include "agent/fuse/PosixMapping.h"
#include "platform/Nt.h"
#include "platform/NtRecords.h"
#include "rdpdr/wire/WireLayout.h"

#include <cerrno>
#include <gtest/gtest.h>

namespace fodr::agent {
namespace {

class Nodes : public ClientTest {
protected:
    void SetUp() override
    {
        StartWithShare();
        table.SetRootShare(share);
    }
    NodePtr Reach(const NodePtr &parent, const std::string &name, bool directory = true, uint64_t fileId = 0)
    {
        return table.Reach(parent, name, directory ? NodeKind::Directory : NodeKind::File, fileId);
    }
    // Empty: nowhere.
    std::u16string PathOf(const NodePtr &node)
    {
        NodeTable::Place place;
        return table.PlaceOf(node, &place) ? place.path : u"";
    }

    NodeTable table;
    const NodePtr root = table.Root();
};

TEST_F(Nodes, KeepTheirPlaceThroughRenamesOfTheirParents)
{
    const NodePtr a = Reach(root, "a"), b = Reach(a, "b"), file = Reach(b, "f*?", false);
    EXPECT_EQ(PathOf(root), u"\\");
    EXPECT_EQ(PathOf(file), u"\\a\\b\\f\xF02A\xF03F");
    const NodePtr x = Reach(root, "x");
    table.Rename(a, "b", x, "c");
    EXPECT_EQ(PathOf(file), u"\\x\\c\\f\xF02A\xF03F");
    EXPECT_EQ(table.Child(x, "c"), b);
    EXPECT_EQ(table.Child(a, "b"), nullptr);
}

TEST_F(Nodes, WhatIsReplacedOrRemovedIsNowhere)
{
    const NodePtr from = Reach(root, "from", false), to = Reach(root, "to", false);
    table.Rename(root, "from", root, "to");
    EXPECT_EQ(PathOf(from), u"\\to");
    EXPECT_EQ(PathOf(to), u"");
    EXPECT_EQ(table.Find(to->id), to); // the kernel still counts it
    table.Remove(root, "to");
    EXPECT_EQ(PathOf(from), u"");
    // Another file under the old name is another node.
    EXPECT_NE(Reach(root, "to", false)->id, from->id);
}

TEST_F(Nodes, AnotherKindUnderTheNameIsAnotherNode)
{
    const NodePtr folder = Reach(root, "n", true);
    const NodePtr inside = Reach(folder, "i", false);
    const NodePtr file = Reach(root, "n", false);
    EXPECT_NE(folder->id, file->id);
    EXPECT_EQ(PathOf(inside), u"");
    EXPECT_EQ(PathOf(file), u"\\n");
}

TEST_F(Nodes, AreFilesAndNotNames)
{
    const NodePtr file = Reach(root, "a", false, 7), same = Reach(root, "b", false, 7);
    EXPECT_EQ(file, same);
    EXPECT_EQ(PathOf(file), u"\\b"); // seen last
    const NodePtr other = Reach(root, "b", false, 8);
    EXPECT_NE(other->id, file->id);
    EXPECT_EQ(PathOf(file), u"\\a");
    table.Remove(root, "a");
    EXPECT_EQ(PathOf(file), u"");
    EXPECT_EQ(Reach(root, "c", false, 7), file); // the other side had moved it
    EXPECT_NE(Reach(root, "d", true, 7)->id, file->id);
    // A file of this mount's making is told apart once its id is known, or while nobody has it open.
    const NodePtr made = table.ReachNew(root, "new", NodeKind::File);
    EXPECT_EQ(Reach(root, "new", false, 9), made);
    EXPECT_EQ(table.FileIdOf(made), 9u);
    const NodePtr again = table.ReachNew(root, "new", NodeKind::File);
    EXPECT_NE(again, made);
    table.SetFileId(again, 10);
    EXPECT_EQ(Reach(root, "e", false, 10), again);
}

TEST_F(Nodes, FoldersThatTheOtherSideMovesAreNeverInThemselves)
{
    const NodePtr a = Reach(root, "a", true, 1), b = Reach(a, "b", true, 2), file = Reach(b, "f", false, 3);
    // Seen one after the other: b in the root is news after a in b.
    EXPECT_EQ(Reach(b, "a", true, 1), a);
    EXPECT_EQ(PathOf(a), u"");
    EXPECT_EQ(PathOf(file), u"");
    EXPECT_EQ(Reach(root, "b", true, 2), b);
    EXPECT_EQ(PathOf(a), u"\\b\\a");
    EXPECT_EQ(PathOf(file), u"\\b\\f");
    EXPECT_NE(Reach(b, "self", true, 2)->id, b->id);
}

TEST_F(Nodes, AreForgottenWhenTheKernelHasForgottenThemAndTheirChildren)
{
    const NodePtr a = Reach(root, "a"), file = Reach(a, "f", false);
    Reach(root, "a");
    table.Forget(a->id, 2);
    EXPECT_EQ(table.Find(a->id), a);
    EXPECT_EQ(PathOf(file), u"\\a\\f");
    table.Forget(file->id, 1);
    EXPECT_EQ(table.Find(file->id), nullptr);
    EXPECT_EQ(table.Find(a->id), nullptr);
    table.Forget(12345, 1); // never told
    table.Forget(NodeTable::kRootId, 99);
    EXPECT_EQ(table.Find(NodeTable::kRootId), root);
}

TEST_F(Nodes, SharesAreFoldersThatComeAndGo)
{
    NodeTable several;
    EXPECT_TRUE(several.AddShareFolder("docs", share));
    EXPECT_FALSE(several.AddShareFolder("docs", share));
    const NodePtr docs = several.ReachShareFolder("docs");
    const NodePtr file = several.Reach(docs, "f", NodeKind::File, 5);
    NodeTable::Place place;
    ASSERT_TRUE(several.PlaceOf(file, &place));
    EXPECT_EQ(place.path, u"\\f");
    EXPECT_EQ(place.share, share);
    EXPECT_EQ(several.ShareRootOf(file), docs);
    EXPECT_EQ(several.RemoveShareFolder(kDevice), "docs");
    EXPECT_FALSE(several.PlaceOf(file, &place));
    EXPECT_EQ(several.ReachShareFolder("docs"), nullptr);
}

TEST(NameGate, FirstComeFirstServed)
{
    NameGate gate;
    std::string order;
    const auto enter = [&](NameGate::Entry entry, char letter) {
        gate.Enter(entry, [&order, letter] { order += letter; });
    };
    using enum NameGate::Entry;
    EXPECT_TRUE(gate.TryEnter(Shared));
    enter(Shared, 'a');
    EXPECT_FALSE(gate.TryEnter(Alone));
    enter(Alone, 'B');
    EXPECT_FALSE(gate.TryEnter(Shared)); // behind the one who waits
    enter(Shared, 'c');
    enter(Shared, 'd');
    enter(Alone, 'E');
    gate.Leave(Shared);
    EXPECT_EQ(order, "a");
    gate.Leave(Shared);
    EXPECT_EQ(order, "aB");
    gate.Leave(Alone);
    EXPECT_EQ(order, "aBcd");
    gate.Leave(Shared);
    gate.Leave(Shared);
    EXPECT_EQ(order, "aBcdE");
    gate.Leave(Alone);
    EXPECT_TRUE(gate.TryEnter(Alone));
}

TEST(Attributes, ShowWhatNtKnows)
{
    FileFacts facts;
    facts.attributes = nt::FILE_ATTRIBUTE_READONLY;
    facts.endOfFile = 5000;
    facts.allocationSize = 8192;
    facts.lastWriteTime = 132'000'000'000'000'001;
    struct stat shown = StatOf(facts, 9, {10, 11});
    EXPECT_EQ(shown.st_mode, static_cast<mode_t>(S_IFREG | 0555));
    EXPECT_EQ(shown.st_blocks, 16);
    EXPECT_EQ(shown.st_mtim.tv_sec, 132'000'000'000'000'001 / 10'000'000 - 11'644'473'600);
    EXPECT_EQ(shown.st_ctim.tv_sec, shown.st_mtim.tv_sec);
    EXPECT_EQ(shown.st_uid, 10u);
    EXPECT_EQ(shown.st_ino, 9u);
    facts.links = 3;
    for (const auto &[id, inode] : {std::pair<uint64_t, uint64_t>{0x1234'0000'0000'0007, 7},
                                    {0x8000'0000'0000'0007, 0x8000'0000'0000'0007}}) {
        facts.id = id;
        shown = StatOf(facts, 9, {});
        EXPECT_EQ(shown.st_ino, inode);
        EXPECT_EQ(shown.st_nlink, 3u);
    }
    facts.attributes |= nt::FILE_ATTRIBUTE_DIRECTORY; // where the other says nothing
    EXPECT_EQ(StatOf(facts, 9, {}).st_mode, static_cast<mode_t>(S_IFDIR | 0755));
}

TEST(Attributes, TimesReturnAsTheyWent)
{
    for (const timespec time :
         {timespec{0, 0}, {1'700'000'000, 999'999'900}, {-5, 500}, {4'000'000'000, 100}}) {
        const timespec back = TimeOfNt(NtTimeOf(time));
        EXPECT_EQ(back.tv_sec, time.tv_sec);
        EXPECT_EQ(back.tv_nsec, time.tv_nsec / 100 * 100);
    }
    // What NT can't hold becomes what it can, and never a value that means "leave it".
    EXPECT_EQ(NtTimeOf({INT64_MIN, 0}), 1);
    EXPECT_EQ(NtTimeOf({-11'644'473'600, 0}), 1);
    EXPECT_EQ(NtTimeOf({INT64_MAX, 0}), INT64_MAX);
}

TEST(StatusErrno, NamesWhatProgramsLookFor)
{
    const std::pair<nt::NTSTATUS, int> cases[] = {
        {nt::STATUS_SUCCESS, 0},
        {nt::STATUS_NOTIFY_ENUM_DIR, 0},
        {nt::STATUS_OBJECT_NAME_NOT_FOUND, ENOENT},
        {nt::STATUS_DISK_FULL, ENOSPC},
        {nt::STATUS_QUOTA_EXCEEDED, EDQUOT},
        {nt::STATUS_DIRECTORY_NOT_EMPTY, ENOTEMPTY},
        {nt::STATUS_DEVICE_REMOVED, ENODEV},
        {STATUS_CONNECTION_DISCONNECTED, EIO},
        {STATUS_IO_TIMEOUT, EIO},
        {nt::NtStatus(0x80000000), EIO}, // unknown ones at either end of the table
        {nt::NtStatus(0xCFFFFFFF), EIO},
        {nt::NtStatus(0xC0000035), EEXIST},
    };
    for (const auto &[status, error] : cases)
        EXPECT_EQ(ErrnoOfStatus(status), error) << std::hex << status;
}

// Open folders that a lost connection takes along.

class Directories : public ClientTest {
protected:
    void SetUp() override
    {
        StartOutliving();
        share->SetFeatures(nt::FODR_HOST_FILE_IDS);
        table.SetRootShare(share);
        folder = table.Reach(table.Root(), "folder", NodeKind::Directory, 7);
    }
    // The requests that its opening brings, but for the create, which is answered.
    DirectoryHandlePtr Open(Request *check, Request *watch = nullptr)
    {
        Mailbox<DirectoryHandlePtr> opened;
        cache.Acquire(folder, [&](nt::NTSTATUS, const DirectoryHandlePtr &handle) { opened.Put(handle); });
        plugin->CompleteNumber(plugin->TakeRequest(), 0x44);
        *check = plugin->TakeRequest();
        EXPECT_EQ(check->Head().MajorFunction, IRP_MJ_QUERY_INFORMATION);
        Request notification = plugin->TakeRequest();
        if (watch)
            *watch = std::move(notification);
        return opened.Take();
    }
    void Answer(const Request &check, uint64_t id)
    {
        Bytes record(96);
        StoreLittle(record.data(), id);
        plugin->CompleteData(check, record);
    }
    nt::NTSTATUS OutcomeOf(const DirectoryHandlePtr &handle)
    {
        Mailbox<nt::NTSTATUS> outcome;
        handle->WhenChecked([&](nt::NTSTATUS status) { outcome.Put(status); });
        return outcome.Take();
    }

    NodeTable table;
    NodePtr folder;
    Mailbox<InlineFunction<void()>> changes;
    DirectoryCache cache{
        table, [this](const NodePtr &, InlineFunction<void()> next) { changes.Put(std::move(next)); },
        [](const NodePtr &) {}};
};

TEST_F(Directories, AreAskedForTheNextChangeOnlyWhenTheLastOneWasTakenUp)
{
    Request check, watch;
    {
        const DirectoryHandlePtr handle = Open(&check, &watch);
        Answer(check, 7);
        EXPECT_EQ(OutcomeOf(handle), nt::STATUS_SUCCESS);
        for (int i = 0; i < 2; ++i) {
            plugin->CompleteData(watch, {});
            InlineFunction<void()> next = changes.Take();
            EXPECT_FALSE(folder->IsWatched());
            // The next request, if there is no other.
            share->QueryInformation(handle->FileId(), nt::FileBasicInformation, [](const IoResult &) {});
            EXPECT_EQ(plugin->TakeRequest().Head().MajorFunction, IRP_MJ_QUERY_INFORMATION);
            next();
            watch = plugin->TakeRequest();
            EXPECT_EQ(watch.Head().MajorFunction, IRP_MJ_DIRECTORY_CONTROL);
            EXPECT_TRUE(folder->IsWatched());
        }
        plugin->Complete(watch, nt::STATUS_DELETE_PENDING);
        EXPECT_FALSE(changes.Take());
        EXPECT_EQ(cache.Present(folder), nullptr);
    }
    EXPECT_EQ(plugin->TakeRequest().Head().MajorFunction, IRP_MJ_CLOSE);
}

TEST_F(Directories, ALossIsNotTakenForAnotherFolder)
{
    Request check;
    {
        const DirectoryHandlePtr handle = Open(&check);
        Lose();
        EXPECT_EQ(OutcomeOf(handle), STATUS_FILE_INVALID);
    }
    EXPECT_EQ(cache.Present(folder), nullptr);
    ComeBack(kDevice);
    back.Take();
    for (const uint64_t id : {7, 8}) {
        {
            const DirectoryHandlePtr handle = Open(&check);
            Answer(check, id);
            EXPECT_EQ(OutcomeOf(handle), id == 7 ? nt::STATUS_SUCCESS : nt::STATUS_OBJECT_PATH_NOT_FOUND);
            EXPECT_EQ(cache.Present(folder), id == 7 ? handle : nullptr);
            cache.Drop(folder);
        }
        EXPECT_EQ(plugin->TakeRequest().Head().MajorFunction, IRP_MJ_CLOSE);
    }
}

} // namespace
} // namespace fodr::agent
