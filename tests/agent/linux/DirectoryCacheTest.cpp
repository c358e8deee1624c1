// Open folders that a lost connection takes along.
#include "agent/fuse/DirectoryCache.h"

#include "agent/AgentStatus.h"
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
    DirectoryHandlePtr Open(Request *check)
    {
        Mailbox<DirectoryHandlePtr> opened;
        cache.Acquire(folder, [&](nt::NTSTATUS, const DirectoryHandlePtr &handle) { opened.Put(handle); });
        plugin->CompleteNumber(plugin->TakeRequest(), 0x44);
        *check = plugin->TakeRequest();
        EXPECT_EQ(check->Head().MajorFunction, IRP_MJ_QUERY_INFORMATION);
        plugin->TakeRequest(); // the notification
        return opened.Take();
    }
    nt::NTSTATUS OutcomeOf(const DirectoryHandlePtr &handle)
    {
        Mailbox<nt::NTSTATUS> outcome;
        handle->WhenChecked([&](nt::NTSTATUS status) { outcome.Put(status); });
        return outcome.Take();
    }

    NodeTable table;
    NodePtr folder;
    DirectoryCache cache{table, [](const NodePtr &) { return true; }, [](const NodePtr &) {},
                         [](InlineFunction<void()>) {}};
};

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
            Bytes record(96);
            StoreLittle(record.data(), id);
            plugin->CompleteData(check, record);
            EXPECT_EQ(OutcomeOf(handle), id == 7 ? nt::STATUS_SUCCESS : nt::STATUS_OBJECT_PATH_NOT_FOUND);
            EXPECT_EQ(cache.Present(folder), id == 7 ? handle : nullptr);
            cache.Drop(folder);
        }
        EXPECT_EQ(plugin->TakeRequest().Head().MajorFunction, IRP_MJ_CLOSE);
    }
}

} // namespace
} // namespace fodr::agent
