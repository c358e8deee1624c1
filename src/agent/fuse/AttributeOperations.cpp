#include "agent/fuse/Operations.h"
#include "agent/fuse/PosixMapping.h"
#include "agent/fuse/Waits.h"
#include "platform/Nt.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace fodr::agent {
namespace {

// A target of 4095 bytes, twice as UTF-16. That is more than a record of MS-FSCC 2.1.2 may have elsewhere.
constexpr uint32_t kLongestReparseData = 20 << 10;

// Those that can be set (MS-FSCC 2.6).
constexpr uint32_t kSettableAttributes = nt::FILE_ATTRIBUTE_READONLY | nt::FILE_ATTRIBUTE_HIDDEN |
                                         nt::FILE_ATTRIBUTE_SYSTEM | nt::FILE_ATTRIBUTE_ARCHIVE |
                                         nt::FILE_ATTRIBUTE_TEMPORARY;

constexpr mode_t kModeWithoutOne = 0755; // of what has none of its own

constexpr uint32_t kAttributeAccess = nt::FILE_READ_ATTRIBUTES | nt::FILE_WRITE_ATTRIBUTES | nt::SYNCHRONIZE;

} // namespace

Detached AttributeOperations::GetAttributes(FuseCall::Ptr call, uint64_t nodeId)
{
    const NodePtr node = mount.table.Find(nodeId);
    if (!node) {
        call->Fail(ESTALE);
        co_return;
    }
    if (mount.options.folders && node == mount.table.Root()) {
        FileFacts root;
        root.attributes = nt::FILE_ATTRIBUTE_DIRECTORY;
        root.lastWriteTime = NtTimeOf({});
        call->Attributes(StatOf(root, node->id, mount.options.owner), 0);
        co_return;
    }
    const Found found = co_await factsFinder.FactsOf(node, Freshness::Cached);
    mount.ReplyAttributes(call, node, found);
}

// A handle that is open with the rights serves; without one the file is opened for the purpose.
Task<AttributeOperations::Borrowed> AttributeOperations::BorrowHandle(NodePtr node, RemoteFilePtr file,
                                                                      bool forData)
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
    if (mount.table.ParentAndNameOf(node, &parent, &name) &&
        co_await places.Confirm(parent) != Standing::Here)
        borrowed.status = nt::STATUS_FILE_DELETED;
    if (nt::IsError(borrowed.status) || !mount.table.PlaceOf(node, &place)) {
        borrowed.status = nt::STATUS_FILE_DELETED;
        co_return borrowed;
    }
    const RemoteShare::CreateCall open = {
        .desiredAccess = kAttributeAccess | (forData ? nt::FILE_WRITE_DATA : 0),
        .createDisposition = nt::FILE_OPEN,
        .createOptions = (node->directory ? nt::FILE_DIRECTORY_FILE : nt::FILE_NON_DIRECTORY_FILE) |
                         (mount.FollowsLinks(node, place) ? 0 : nt::FILE_OPEN_REPARSE_POINT)};
    IoResult opened = co_await place.share->Create(open, place.path);
    if (opened.status == nt::STATUS_SHARING_VIOLATION && node->opens.IsClosing()) {
        // By a handle of our own.
        co_await AwaitNoneClosing(node);
        opened = co_await place.share->Create(open, place.path);
    }
    borrowed.status = opened.status;
    borrowed.share = place.share;
    borrowed.fileId = opened.fileId;
    co_return borrowed;
}

void AttributeOperations::GiveBack(const NodePtr &node, const Borrowed &borrowed)
{
    if (!borrowed.file && !nt::IsError(borrowed.status))
        mount.CloseLater(node, borrowed.share, borrowed.fileId);
}

// On hosts that know modes.
Task<nt::NTSTATUS> AttributeOperations::ChangeMode(const Borrowed &borrowed, const AttributeChange &change)
{
    const bool owners = mount.options.owner.real;
    const nt::FODR_MODE_CHANGE record = {.Fields = (change.setMode ? nt::FODR_SET_MODE : 0) |
                                                   (owners && change.setUser ? nt::FODR_SET_OWNER : 0) |
                                                   (owners && change.setGroup ? nt::FODR_SET_GROUP : 0),
                                         .Mode = change.mode & nt::FODR_MODE_BITS,
                                         .Owner = change.owner.uid,
                                         .Group = change.owner.gid};
    if (record.Fields == 0)
        co_return nt::STATUS_SUCCESS;
    const ByteSpan bytes(reinterpret_cast<const uint8_t *>(&record), sizeof(record));
    const IoResult result =
        co_await borrowed.share->DeviceControl(borrowed.fileId, nt::FSCTL_FODR_SET_MODE, bytes);
    co_return result.status;
}

// Towards hosts without modes the read-only attribute stands for the owner's write bit. The other bits have
// no place to be kept: what would change them is refused.
Task<nt::NTSTATUS> AttributeOperations::ChangeBasics(const Borrowed &borrowed, const AttributeChange &change,
                                                     bool directory, FileFacts *changed, bool *known)
{
    BasicChange basics;
    if (change.setAccessTime)
        basics.lastAccessTime = NtTimeOf(change.accessTime);
    if (change.setWriteTime)
        basics.lastWriteTime = NtTimeOf(change.writeTime);
    if (change.setMode && !borrowed.share->Has(nt::FODR_HOST_MODES)) {
        constexpr mode_t kWritable = 0222;
        const mode_t other = (change.mode ^ kModeWithoutOne) & 07777;
        if ((other & ~kWritable) != 0 || (directory && other != 0))
            co_return nt::STATUS_PRIVILEGE_NOT_HELD;
        const nt::NTSTATUS status = co_await borrowed.share->QueryFacts(borrowed.fileId, changed);
        if (nt::IsError(status))
            co_return status;
        *known = true; // until it is changed
        const bool readOnly = (change.mode & S_IWUSR) == 0;
        uint32_t attributes = changed->attributes & kSettableAttributes & ~nt::FILE_ATTRIBUTE_READONLY;
        attributes |= readOnly ? nt::FILE_ATTRIBUTE_READONLY : 0;
        if (!directory && changed->IsReadOnly() != readOnly)
            basics.attributes = attributes ? attributes : nt::FILE_ATTRIBUTE_NORMAL;
    }
    if (basics.lastAccessTime == 0 && basics.lastWriteTime == 0 && basics.attributes == 0)
        co_return nt::STATUS_SUCCESS;
    const std::array<uint8_t, 36> record = BasicRecord(basics);
    const IoResult result =
        co_await borrowed.share->SetInformation(borrowed.fileId, nt::FileBasicInformation, record);
    *known = !result.Failed() && ReadPreReadFacts(result.preRead, changed);
    co_return result.status;
}

int AttributeOperations::Refusal(const NodePtr &node, const AttributeChange &change, bool byHandle) const
{
    Place place;
    if (mount.table.PlaceOf(node, &place) && place.share->Device().IsReadOnly())
        return EROFS;
    if (!byHandle && !node->opens.IsOpen() && node->MustBeLookedUp())
        return ESTALE;
    if (node->kind == NodeKind::Link && (change.setSize || change.setMode)) // a link has neither
        return EOPNOTSUPP;
    // Everything belongs to one owner and stays so, unless the owners of the other side are shown.
    const Owner &owner = mount.options.owner;
    const bool otherOwner = !owner.real && ((change.setUser && change.owner.uid != owner.uid) ||
                                            (change.setGroup && change.owner.gid != owner.gid));
    return otherOwner ? EPERM : 0;
}

// Whether the name that was opened led to the node's file. If not, the kernel is to look again.
Task<nt::NTSTATUS> AttributeOperations::CheckIdentity(NodePtr node, std::shared_ptr<FactsUnderway> identity)
{
    co_await identity->Arrival();
    const uint64_t known = mount.table.FileIdOf(node);
    if (nt::IsError(identity->status))
        co_return identity->status;
    if (known == 0)
        mount.table.SetFileId(node, identity->facts.id);
    co_return known == 0 || known == identity->facts.id ? nt::STATUS_SUCCESS : nt::STATUS_FILE_DELETED;
}

Task<nt::NTSTATUS> AttributeOperations::SetSize(NodePtr node, const Borrowed &borrowed, uint64_t size)
{
    const std::shared_ptr<WriteBehind> writes = node->WritesIfAny();
    if (writes)
        writes->SizeChanges();
    const nt::NTSTATUS status = co_await borrowed.share->SetEndOfFile(borrowed.fileId, size);
    if (writes)
        writes->SizeChanged(status, size);
    co_return status;
}

Task<nt::NTSTATUS> AttributeOperations::Change(NodePtr node, const AttributeChange &change, Changed *changed)
{
    const Borrowed &borrowed = changed->borrowed;
    if (nt::IsError(borrowed.status))
        co_return borrowed.status;
    if (!borrowed.file && borrowed.share->HasIds())
        changed->identity = FactsUnderway::Ask(*borrowed.share, borrowed.fileId);
    nt::NTSTATUS status = nt::STATUS_SUCCESS;
    if (change.setSize && changed->identity) // what is cut off can't be put back
        status = co_await CheckIdentity(node, changed->identity);
    if (change.setSize && !nt::IsError(status))
        status = co_await SetSize(node, borrowed, change.size);
    if (change.SetsModeOrOwner() && borrowed.share->Has(nt::FODR_HOST_MODES) && !nt::IsError(status))
        status = co_await ChangeMode(borrowed, change);
    if ((change.SetsTimes() || change.setMode) && !nt::IsError(status))
        status = co_await ChangeBasics(borrowed, change, node->directory, &changed->facts, &changed->known);
    if (changed->identity) {
        const nt::NTSTATUS checked = co_await CheckIdentity(node, changed->identity);
        if (nt::IsError(checked))
            status = checked;
    }
    co_return status;
}

// Asked of the handle that was borrowed, while it is there. Gives it back.
Task<Found> AttributeOperations::FactsAfter(NodePtr node, const Changed &changed)
{
    Found found;
    const Borrowed &borrowed = changed.borrowed;
    if (changed.known) {
        GiveBack(node, borrowed);
        found.facts = changed.facts;
        FileFacts last;
        if (found.facts.id == 0 &&
            (changed.identity || node->LastFacts(&last))) // what came with the change lacks these
            found.facts.TakeIdentity(changed.identity ? changed.identity->facts : last);
    } else if (borrowed.share && !borrowed.file) {
        found.status = co_await borrowed.share->QueryFacts(borrowed.fileId, &found.facts);
        GiveBack(node, borrowed);
    } else {
        co_return co_await factsFinder.FactsOf(node);
    }
    if (!nt::IsError(found.status))
        node->NoteFacts(found.facts);
    co_return found;
}

Detached AttributeOperations::SetAttributes(FuseCall::Ptr call, uint64_t nodeId, AttributeChange change,
                                            RemoteFilePtr file)
{
    const NodePtr node = mount.table.Find(nodeId);
    const int refusal = node ? Refusal(node, change, file != nullptr) : ESTALE;
    if (refusal != 0) {
        call->Fail(refusal);
        co_return;
    }
    co_await AwaitWrites(node->WritesIfAny());
    const auto asked = Node::Clock::now();
    Changed changed;
    if (change.setSize || change.SetsTimes() || change.SetsModeOrOwner()) {
        changed.borrowed = co_await BorrowHandle(node, file, change.setSize);
        node->NoteOwnChange();
        const nt::NTSTATUS status = co_await Change(node, change, &changed);
        node->NoteOwnChange();
        if (nt::IsError(status)) {
            GiveBack(node, changed.borrowed);
            call->FailOfFile(status);
            co_return;
        }
    }
    Found found = co_await FactsAfter(node, changed);
    found.asked = asked;
    mount.ReplyAttributes(call, node, found);
}

Detached AttributeOperations::ReadLink(FuseCall::Ptr call, uint64_t nodeId)
{
    const NodePtr node = mount.table.Find(nodeId);
    Place place;
    if (!node || node->kind != NodeKind::Link) {
        call->Fail(node ? EINVAL : ESTALE);
        co_return;
    }
    if (const std::string known = node->Target(); !known.empty()) {
        call->Link(known);
        co_return;
    }
    const RemoteShare::CreateCall open = {.desiredAccess = nt::FILE_READ_ATTRIBUTES | nt::SYNCHRONIZE,
                                          .createDisposition = nt::FILE_OPEN,
                                          .createOptions = nt::FILE_OPEN_REPARSE_POINT};
    if (!mount.table.PlaceOf(node, &place)) {
        call->Fail(ESTALE);
        co_return;
    }
    const IoResult opened = co_await place.share->Create(open, place.path);
    if (opened.Failed()) {
        call->FailOfFile(opened.status);
        co_return;
    }
    const uint32_t fileId = opened.fileId;
    std::string target;
    bool whole;
    {
        const IoResult told =
            co_await place.share->DeviceControl(fileId, nt::FSCTL_GET_REPARSE_POINT, {}, kLongestReparseData);
        whole = !told.Failed() && ReadLinkTarget(told.data, &target);
    }
    FileFacts facts;
    const nt::NTSTATUS status = co_await place.share->QueryFacts(fileId, &facts);
    mount.CloseLater(node, place.share, fileId);
    if (nt::IsError(status)) {
        call->FailStatus(status);
    } else if (const uint64_t known = mount.table.FileIdOf(node); known != 0 && facts.id != known) {
        call->Fail(ESTALE);
    } else if (!whole) {
        call->Fail(EIO);
    } else {
        node->NoteTarget(target);
        call->Link(target);
    }
}

// By the modes that are shown. Of a file they are asked for.
Detached AttributeOperations::Access(FuseCall::Ptr call, uint64_t nodeId, int mask)
{
    const NodePtr node = mount.table.Find(nodeId);
    if (!node) {
        call->Fail(ESTALE);
        co_return;
    }
    // Who makes it the working directory stays in it, wherever the other side moves it: a handle tells.
    if (node->directory && (mask & X_OK))
        co_await mount.AwaitDirectory(node);
    Place place;
    if ((mask & W_OK) && mount.table.PlaceOf(node, &place) && place.share->Device().IsReadOnly()) {
        call->Fail(EROFS);
        co_return;
    }
    if (node->kind == NodeKind::File && (mask & (W_OK | X_OK))) {
        const Found found = co_await factsFinder.FactsOf(node);
        if (nt::IsError(found.status)) {
            call->FailOfFile(found.status);
            co_return;
        }
        const bool runs = (StatOf(found.facts, node->id, mount.options.owner).st_mode & 0111) != 0;
        if (((mask & W_OK) && found.facts.IsReadOnly()) || ((mask & X_OK) && !runs)) {
            call->Fail(EACCES);
            co_return;
        }
    }
    call->Done();
}

Detached AttributeOperations::StatFs(FuseCall::Ptr call, uint64_t nodeId)
{
    const NodePtr node = mount.table.Find(nodeId);
    const NodePtr shareRoot = node ? mount.table.ShareRootOf(node) : nullptr;
    if (!shareRoot) {
        // The root of several shares has no space of its own.
        call->Volume({});
        co_return;
    }
    nt::NTSTATUS status = STATUS_FILE_INVALID;
    for (int tries = 0; tries < 2 && SaysStaleHandle(status); ++tries) {
        const auto [acquired, directory] = co_await mount.AwaitDirectory(shareRoot);
        if (!directory) {
            status = acquired;
            break;
        }
        const IoResult result =
            co_await directory->Share().QueryVolume(directory->FileId(), nt::FileFsFullSizeInformation);
        status = result.status;
        VolumeFacts facts;
        if (!result.Failed() && !ReadFullSizeInformation(result.data, &facts))
            status = STATUS_INVALID_NETWORK_RESPONSE;
        if (!nt::IsError(status)) {
            call->Volume(facts);
            co_return;
        }
        if (SaysStaleHandle(status))
            mount.directories.Drop(shareRoot);
    }
    call->FailStatus(status);
}

} // namespace fodr::agent
