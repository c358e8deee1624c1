// Open folders that a lost connection takes along.
#include "agent/fuse/DirectoryCache.h"

#include "agent/IoResult.h"
#include "agent/ScriptedPlugin.h"
#include "platform/NtRecords.h"

namespace fodr::agent {
namespace {

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
