#include "agent/fuse/FileSystem.h"
#include "agent/fuse/RemoteCalls.h"
#include "agent/fuse/StatusErrno.h"
#include "platform/Nt.h"

#include <fcntl.h>

#include <cerrno>

namespace fodr::agent {
namespace {

// Those that can be set (MS-FSCC 2.6).
constexpr uint32_t kSettableAttributes = nt::FILE_ATTRIBUTE_READONLY | nt::FILE_ATTRIBUTE_HIDDEN |
                                         nt::FILE_ATTRIBUTE_SYSTEM | nt::FILE_ATTRIBUTE_ARCHIVE |
                                         nt::FILE_ATTRIBUTE_TEMPORARY;

constexpr uint32_t kAttributeAccess = nt::FILE_READ_ATTRIBUTES | nt::FILE_WRITE_ATTRIBUTES | nt::SYNCHRONIZE;

std::array<uint8_t, 8> SizeRecord(uint64_t size)
{
    std::array<uint8_t, 8> record;
    StoreLittle(record.data(), size);
    return record;
}

} // namespace

// A handle that is open with the rights serves; without one the file is opened for the purpose.
Task<FileSystem::Borrowed> FileSystem::BorrowHandle(NodePtr node, OpenFilePtr file, bool forData)
{
    Borrowed borrowed;
    if (!file || !(file->writable || (!forData && file->changesBasics)))
        file = forData ? node->opens.Any(true) : node->opens.AnyThatChangesBasics();
    if (file) {
        borrowed.file = file;
        borrowed.share = file->share;
        borrowed.fileId = file->fileId;
        co_return borrowed;
    }
    Place place;
    NodePtr parent;
    std::string name;
    if (table.ParentAndNameOf(node, &parent, &name) && co_await Confirm(parent) != Standing::Here)
        borrowed.status = nt::STATUS_FILE_DELETED;
    if (nt::IsError(borrowed.status) || !table.PlaceOf(node, &place)) {
        borrowed.status = nt::STATUS_FILE_DELETED;
        co_return borrowed;
    }
    const RemoteShare::CreateCall open = {
        .desiredAccess = kAttributeAccess | (forData ? nt::FILE_WRITE_DATA : 0),
        .createDisposition = nt::FILE_OPEN,
        .createOptions = (node->directory ? nt::FILE_DIRECTORY_FILE : nt::FILE_NON_DIRECTORY_FILE) |
                         (FollowsLinks(node, place) ? 0 : nt::FILE_OPEN_REPARSE_POINT)};
    IoResult opened = co_await CreateFile(*place.share, open, place.path);
    if (opened.status == nt::STATUS_SHARING_VIOLATION && node->opens.IsClosing()) {
        // By a handle of our own.
        co_await AwaitCall(
            [&](InlineFunction<void()> done) { node->opens.WhenNoneClosing(std::move(done)); });
        opened = co_await CreateFile(*place.share, open, place.path);
    }
    borrowed.status = opened.status;
    borrowed.share = place.share;
    borrowed.fileId = opened.fileId;
    co_return borrowed;
}

void FileSystem::GiveBack(const NodePtr &node, const Borrowed &borrowed)
{
    if (!borrowed.file && !nt::IsError(borrowed.status))
        CloseLater(node, borrowed.share, borrowed.fileId);
}

// The read-only attribute stands for the owner's write bit; the other bits have no place to be kept.
Task<nt::NTSTATUS> FileSystem::ChangeBasics(const Borrowed &borrowed, const AttributeChange &change,
                                            bool directory, FileFacts *facts, bool *known)
{
    BasicChange basics;
    if (change.setAccessTime)
        basics.lastAccessTime = NtTimeOf(change.accessTime);
    if (change.setWriteTime)
        basics.lastWriteTime = NtTimeOf(change.writeTime);
    if (change.setMode && !directory) {
        const nt::NTSTATUS status = co_await QueryFacts(*borrowed.share, borrowed.fileId, facts);
        if (nt::IsError(status))
            co_return status;
        *known = true; // until it is changed
        const bool readOnly = (change.mode & S_IWUSR) == 0;
        uint32_t attributes = facts->attributes & kSettableAttributes & ~nt::FILE_ATTRIBUTE_READONLY;
        attributes |= readOnly ? nt::FILE_ATTRIBUTE_READONLY : 0;
        if (facts->IsReadOnly() != readOnly)
            basics.attributes = attributes ? attributes : nt::FILE_ATTRIBUTE_NORMAL;
    }
    if (basics.lastAccessTime == 0 && basics.lastWriteTime == 0 && basics.attributes == 0)
        co_return nt::STATUS_SUCCESS;
    const std::array<uint8_t, 36> record = BasicRecord(basics);
    const IoResult result =
        co_await SetFile(*borrowed.share, borrowed.fileId, nt::FileBasicInformation, record);
    *known = !result.Failed() && ReadPreReadFacts(result.preRead, facts);
    co_return result.status;
}

Detached FileSystem::SetAttributes(FuseCall::Ptr call, uint64_t nodeId, AttributeChange change,
                                   uint64_t handle)
{
    const NodePtr node = table.Find(nodeId);
    const OpenFilePtr file = handle ? openFiles.Of(handle) : nullptr;
    Place place;
    if (!node) {
        call->Fail(ESTALE);
        co_return;
    }
    if (table.PlaceOf(node, &place) && place.share->Device().IsReadOnly()) {
        call->Fail(EROFS);
        co_return;
    }
    if (!handle && !node->opens.IsOpen() && node->MustBeLookedUp()) {
        call->Fail(ESTALE);
        co_return;
    }
    if (node->kind == NodeKind::Link) { // what it leads to isn't meant
        call->Fail(EOPNOTSUPP);
        co_return;
    }
    // Everything here belongs to one owner and stays so.
    if ((change.setUser && change.owner.uid != options.owner.uid) ||
        (change.setGroup && change.owner.gid != options.owner.gid)) {
        call->Fail(EPERM);
        co_return;
    }
    const std::shared_ptr<WriteBehind> writes = node->WritesIfAny();
    if (writes)
        co_await AwaitCall([&](InlineFunction<void()> done) { writes->WhenDone(std::move(done)); });

    const bool changesBasics = change.setMode || change.setAccessTime || change.setWriteTime;
    const auto asked = Node::Clock::now();
    Borrowed borrowed;
    Found found;
    bool known = false;                      // the facts after the change
    std::shared_ptr<FactsUnderway> identity; // of what was opened for the change
    if (change.setSize || changesBasics) {
        borrowed = co_await BorrowHandle(node, file, change.setSize);
        nt::NTSTATUS status = borrowed.status;
        node->NoteOwnChange();
        if (!nt::IsError(status) && !borrowed.file && borrowed.share->HasIds())
            identity = FactsUnderway::Ask(*borrowed.share, borrowed.fileId);
        if (identity && change.setSize) { // what is cut off can't be put back
            co_await identity->Arrival();
            const uint64_t id = table.FileIdOf(node);
            status = identity->status;
            if (!nt::IsError(status) && id != 0 && id != identity->facts.id)
                status = nt::STATUS_FILE_DELETED;
        }
        if (!nt::IsError(status) && change.setSize) {
            const std::array<uint8_t, 8> record = SizeRecord(change.size);
            if (writes)
                writes->SizeChanges();
            const IoResult result =
                co_await SetFile(*borrowed.share, borrowed.fileId, nt::FileEndOfFileInformation, record);
            status = result.status;
            if (writes)
                writes->SizeChanged(result, change.size);
        }
        if (!nt::IsError(status) && changesBasics)
            status = co_await ChangeBasics(borrowed, change, node->directory, &found.facts, &known);
        node->NoteOwnChange();
        if (identity) {
            co_await identity->Arrival();
            const uint64_t id = table.FileIdOf(node);
            if (nt::IsError(identity->status))
                status = identity->status;
            else if (id == 0)
                table.SetFileId(node, identity->facts.id);
            else if (id != identity->facts.id)
                status = nt::STATUS_FILE_DELETED; // another file had the name: the kernel is to look again
        }
        if (nt::IsError(status)) {
            if (!nt::IsError(borrowed.status))
                GiveBack(node, borrowed);
            if (SaysAbsent(status))
                call->Fail(ESTALE);
            else
                call->FailStatus(status);
            co_return;
        }
    }
    // The facts of what was borrowed are asked of that handle, while it is there.
    if (known) {
        GiveBack(node, borrowed);
        FileFacts last;
        if (found.facts.id == 0 &&
            (identity || node->LastFacts(&last))) // what came with the change lacks these
            found.facts.TakeIdentity(identity ? identity->facts : last);
        node->NoteFacts(found.facts);
    } else if (borrowed.share && !borrowed.file) {
        found.status = co_await QueryFacts(*borrowed.share, borrowed.fileId, &found.facts);
        GiveBack(node, borrowed);
        if (!nt::IsError(found.status))
            node->NoteFacts(found.facts);
    } else {
        found = co_await FactsOf(node);
    }
    NodePtr parent;
    std::string name;
    if (!table.ParentAndNameOf(node, &parent, &name))
        parent = node;
    if (SaysAbsent(found.status))
        call->Fail(ESTALE);
    else if (nt::IsError(found.status))
        call->FailStatus(found.status);
    else
        call->Attributes(StatOf(found.facts, node->id, options.owner),
                         AttributeSeconds(node, found.facts, asked, NameSeconds(parent, asked)));
}

// Files grow by this and never shrink; holes aren't made, and nothing is reserved.
Detached FileSystem::Allocate(FuseCall::Ptr call, uint64_t handle, int mode, uint64_t offset, uint64_t length)
{
    const OpenFilePtr file = openFiles.Of(handle);
    if (mode != 0) {
        call->Fail(EOPNOTSUPP);
        co_return;
    }
    if (!file->writable) {
        call->Fail(EBADF);
        co_return;
    }
    const std::shared_ptr<WriteBehind> writes = file->node->Writes(writeWindow);
    co_await AwaitCall([&](InlineFunction<void()> done) { writes->WhenDone(std::move(done)); });
    FileFacts facts;
    const nt::NTSTATUS status = co_await QueryFacts(*file->share, file->fileId, &facts);
    if (nt::IsError(status)) {
        call->FailStatus(status);
        co_return;
    }
    if (facts.endOfFile >= 0 && static_cast<uint64_t>(facts.endOfFile) >= offset + length) {
        call->Done();
        co_return;
    }
    file->node->NoteOwnChange();
    const std::array<uint8_t, 8> record = SizeRecord(offset + length);
    const IoResult result =
        co_await SetFile(*file->share, file->fileId, nt::FileEndOfFileInformation, record);
    writes->DataChanged();
    file->node->NoteOwnChange();
    call->FailStatus(result.status);
}

} // namespace fodr::agent
