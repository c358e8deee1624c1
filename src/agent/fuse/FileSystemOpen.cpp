#include "agent/fuse/FileSystem.h"
#include "agent/fuse/Fuse.h"
#include "agent/fuse/NodeReopen.h"
#include "agent/fuse/RemoteCalls.h"
#include "agent/fuse/StatusErrno.h"
#include "platform/Nt.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

namespace fodr::agent {
namespace {

constexpr uint32_t kPrimed = 128 << 10;    // read with the open
constexpr int64_t kWorthPriming = 1 << 20; // files above this are read in ways that can't be foreseen

bool WantsWrite(int flags)
{
    return (flags & O_ACCMODE) != O_RDONLY;
}

constexpr int kMostWaits = 3; // for handles of our own that are being closed

FuseCall::Caching CachingOf(int flags)
{
    // The kernel doesn't know where the bytes go.
    return flags & O_APPEND ? FuseCall::Caching::Direct : FuseCall::Caching::Allowed;
}

} // namespace

uint32_t FileSystem::AccessOf(int flags, const RemoteShare &share) const
{
    uint32_t access = nt::FILE_READ_ATTRIBUTES | nt::SYNCHRONIZE;
    if ((flags & O_ACCMODE) != O_WRONLY)
        access |= nt::FILE_READ_DATA;
    // Times can be set by any handle: no other one is sure to be of the same file.
    if (WantsWrite(flags) || (share.HasIds() && !share.Device().IsReadOnly()))
        access |= nt::FILE_WRITE_ATTRIBUTES;
    if (WantsWrite(flags))
        access |= nt::FILE_WRITE_DATA | nt::FILE_APPEND_DATA;
    return access;
}

OpenFilePtr FileSystem::NewOpen(const NodePtr &node, const std::shared_ptr<RemoteShare> &share,
                                uint32_t fileId, uint32_t access)
{
    auto file = std::make_shared<OpenFile>();
    file->node = node;
    file->share = share;
    file->fileId = fileId;
    file->access = access;
    file->readable = (access & nt::FILE_READ_DATA) != 0;
    file->writable = (access & nt::FILE_WRITE_DATA) != 0;
    file->changesBasics = (access & nt::FILE_WRITE_ATTRIBUTES) != 0;
    const std::shared_ptr<WriteBehind> writes = node->Writes(writeWindow);
    if (file->readable)
        file->readAhead = std::make_shared<ReadAhead>(share, fileId, writes, readWindow);
    return file;
}

// The number by which the kernel names the open file, which counts as one of the node's from now on.
uint64_t FileSystem::Keep(const OpenFilePtr &file, bool isNew)
{
    file->node->opens.Add(file);
    if (!file->lender)
        RememberNode(*file->share, file->fileId, table, file->node, isNew);
    return openFiles.Keep(file);
}

// A small file that is opened for reading is read: its bytes come while the kernel asks for its facts.
void FileSystem::PrimeReading(const OpenFilePtr &file)
{
    FileFacts facts;
    if (file->writable || !file->node->LastFacts(&facts) || facts.endOfFile <= 0 ||
        facts.endOfFile > kWorthPriming)
        return;
    // One byte more shows the end.
    const auto length = static_cast<uint32_t>(std::min<int64_t>(facts.endOfFile + 1, kPrimed));
    file->readAhead->Prime(length, length > facts.endOfFile);
}

void FileSystem::CloseLater(const NodePtr &node, const std::shared_ptr<RemoteShare> &share, uint32_t fileId)
{
    node->opens.BeginClose();
    share->Close(fileId, [node](const IoResult &) { node->opens.EndClose(); });
}

// Its time tells how much data has to be on its way.
Task<IoResult> FileSystem::OpenAt(const Place &place, const RemoteShare::CreateCall &open)
{
    const auto begun = TransferWindow::Clock::now();
    const bool alone = readWindow.InFlight() == 0 && writeWindow.InFlight() == 0;
    IoResult opened = co_await CreateFile(*place.share, open, place.path);
    if (!opened.Failed()) { // a failure may be this side's own
        const auto now = TransferWindow::Clock::now();
        readWindow.NoteRoundTrip(begun, alone, now);
        writeWindow.NoteRoundTrip(begun, alone, now);
    }
    co_return opened;
}

Task<IoResult> FileSystem::OpenNode(NodePtr node, Place place, RemoteShare::CreateCall open)
{
    NodePtr parent;
    std::string name;
    if (!table.ParentAndNameOf(node, &parent, &name))
        parent = node;
    const GateHold passed = co_await PassGate(parent, NameGate::Entry::Shared);
    uint64_t ended = node->opens.ClosesEnded();
    IoResult opened = co_await OpenAt(place, open);
    for (int i = 0; i < kMostWaits && opened.status == nt::STATUS_SHARING_VIOLATION; ++i) {
        if (!node->opens.IsClosing() && node->opens.ClosesEnded() == ended)
            break;
        co_await AwaitCall(
            [&](InlineFunction<void()> done) { node->opens.WhenNoneClosing(std::move(done)); });
        ended = node->opens.ClosesEnded();
        opened = co_await OpenAt(place, open);
    }
    co_return opened;
}

// Opens for reading alone. `*facts` are as of the open, if the other side told them.
Task<IoResult> FileSystem::OpenToRead(NodePtr node, Place place, RemoteShare::CreateCall open,
                                      FileFacts *facts)
{
    // What this mount writes itself must stay open to it.
    if (options.denyWriters && !node->opens.Any(true)) {
        RemoteShare::CreateCall denying = open;
        denying.sharedAccess = nt::FILE_SHARE_READ | nt::FILE_SHARE_DELETE;
        denying.createOptions |= nt::FILE_SEQUENTIAL_ONLY;
        const IoResult opened = co_await OpenNode(node, place, denying);
        if (!opened.Failed() && ReadPreReadFacts(opened.preRead, facts) && !place.share->HasIds())
            node->NoteFactsOfOpen(*facts);
        if (opened.status != nt::STATUS_SHARING_VIOLATION)
            co_return opened;
    }
    const IoResult opened = co_await OpenNode(node, place, open);
    co_return opened;
}

// Not by overwriting: that would take attributes and streams along.
Task<nt::NTSTATUS> FileSystem::Truncate(NodePtr node, std::shared_ptr<RemoteShare> share, uint32_t fileId)
{
    const std::shared_ptr<WriteBehind> writes = node->Writes(writeWindow);
    co_await AwaitCall([&](InlineFunction<void()> done) { writes->WhenDone(std::move(done)); });
    node->NoteOwnChange();
    writes->SizeChanges();
    const std::array<uint8_t, 8> nothing{};
    const IoResult result = co_await SetFile(*share, fileId, nt::FileEndOfFileInformation, nothing);
    writes->SizeChanged(result, 0);
    node->NoteOwnChange();
    co_return result.status;
}

// Another file has the name by now. The kernel is told to look again, and finds it open.
void FileSystem::OpenedAnother(const NodePtr &parent, const std::string &name,
                               const std::shared_ptr<RemoteShare> &share, uint32_t fileId, uint32_t access,
                               const FileFacts &facts)
{
    directories.ForgetNames(parent);
    openedAhead.Keep({.parent = parent,
                      .name = name,
                      .handle = std::make_shared<OpenedAhead::Handle>(share, fileId),
                      .access = access,
                      .facts = facts});
    notifier.CallAt(Node::Clock::now() + 5 * OpenedAhead::kSpan, [this] { openedAhead.Purge(false); });
}

// One more open by a handle that is there.
OpenFilePtr FileSystem::Lend(const OpenFilePtr &lender)
{
    OpenFilePtr file = NewOpen(lender->node, lender->share, lender->fileId, lender->access);
    file->lender = lender;
    file->givenAway = true;
    return file;
}

// The kernel says which file it opens, not by which name. A name that leads to another file by now is lost.
Task<bool> FileSystem::LosesName(NodePtr node)
{
    bool loses = false;
    for (const Node::Name &name : table.OtherNamesOf(node)) {
        const Found found = co_await FindPassing(name.parent, name.text, Freshness::Asked);
        const bool another = !nt::IsError(found.status) && found.facts.id != table.FileIdOf(node);
        if (another || SaysAbsent(found.status)) {
            LoseName(name.parent, name.text, node);
            loses = true;
        }
    }
    co_return loses;
}

// The open counts only once it is known what was opened.
Task<FileSystem::Opening> FileSystem::OpenFileOf(NodePtr node, Place place, int flags, uint32_t access)
{
    Opening opening;
    if (table.FileIdOf(node) == 0 && node->opens.IsOpen())
        co_await Identify(node);
    const uint64_t known = table.FileIdOf(node);
    const bool lookedAgain = Node::Clock::now() - node->AheadAt() < OpenedAhead::kSpan;
    if (const std::optional<OpenedAhead::Found> ahead =
            lookedAgain ? openedAhead.Take(place.share, known, access) : std::nullopt) {
        opening.file = NewOpen(node, place.share, ahead->handle->fileId, access);
        opening.file->lender = ahead->handle;
        opening.file->givenAway = true;
        opening.status = co_await QueryFacts(*place.share, opening.file->fileId, &opening.facts);
        co_return opening;
    }
    const RemoteShare::CreateCall open = {.desiredAccess = access,
                                          .createDisposition = nt::FILE_OPEN,
                                          .createOptions =
                                              nt::FILE_NON_DIRECTORY_FILE |
                                              (FollowsLinks(node, place) ? 0 : nt::FILE_OPEN_REPARSE_POINT)};
    const bool truncates = (flags & O_TRUNC) != 0;
    for (bool first = true;; first = false) {
        const bool readsAlone = !WantsWrite(flags) && !truncates;
        const IoResult opened = readsAlone ? co_await OpenToRead(node, place, open, &opening.facts)
                                           : co_await OpenNode(node, place, open);
        opening.status = opened.status;
        const uint32_t fileId = opened.fileId;
        if (!opened.Failed()) {
            // A small file that is opened for reading is read: its bytes come while it is asked what was
            // opened.
            const OpenFilePtr file = NewOpen(node, place.share, fileId, access);
            if (!truncates)
                PrimeReading(file);
            const std::shared_ptr<WriteBehind> writes = node->Writes(writeWindow);
            const uint64_t asked = writes->Generation();
            opening.status = co_await QueryFacts(*place.share, fileId, &opening.facts);
            if (nt::IsError(opening.status))
                co_return opening;
            if (known == 0)
                table.SetFileId(node, opening.facts.id);
            if (known == 0 || known == opening.facts.id) {
                writes->NoteFacts(opening.facts, asked);
                opening.file = file;
                co_return opening;
            }
            file->givenAway = true;
        } else if (!SaysAbsent(opening.status) && opening.status != nt::STATUS_FILE_IS_A_DIRECTORY) {
            co_return opening;
        }
        // Another file, or none, has the name. Or its folder was moved, and the file with it.
        NodePtr parent;
        std::string name;
        const bool named =
            table.ParentAndNameOf(node, &parent, &name) || table.FormerPlaceOf(node, &parent, &name);
        const Standing standing = named ? co_await Confirm(parent, Believing::Nothing) : Standing::Gone;
        Place now;
        const bool moved =
            standing == Standing::Here && table.PlaceIn(parent, name, &now) && now.path != place.path;
        const OpenFilePtr lender = lookedAgain ? node->opens.AnyWith(access) : nullptr;
        if (!opened.Failed() && standing == Standing::Here && !moved && !lender)
            OpenedAnother(parent, name, place.share, fileId, access, opening.facts);
        else if (!opened.Failed())
            place.share->Close(fileId, [](const IoResult &) {});
        if (moved && first) {
            place = now;
            continue;
        }
        if (lender) {
            opening.file = Lend(lender);
            opening.status = co_await QueryFacts(*place.share, lender->fileId, &opening.facts);
            co_return opening;
        }
        if (named)
            LoseName(parent, name, node);
        opening.status = nt::STATUS_FILE_DELETED;
        co_return opening;
    }
}

Detached FileSystem::Open(FuseCall::Ptr call, uint64_t nodeId, int flags)
{
    const NodePtr node = table.Find(nodeId);
    Place place;
    NodePtr parent;
    std::string name;
    // Its folder may have been moved.
    if (node && !table.PlaceOf(node, &place) && table.ParentAndNameOf(node, &parent, &name))
        co_await Confirm(parent);
    if (!node || !(table.PlaceOf(node, &place) ||
                   (table.FormerPlaceOf(node, &parent, &name) && table.PlaceIn(parent, name, &place)))) {
        call->Fail(ESTALE);
        co_return;
    }
    const bool truncates = (flags & O_TRUNC) != 0;
    // It may have been meant to make a file: the kernel says so only where it knew of none.
    if (truncates && place.share->HasIds() && node->IsInOtherCase()) {
        call->Fail(EEXIST);
        co_return;
    }
    if (node->MustBeLookedUp()) {
        call->Fail(ESTALE);
        co_return;
    }
    if ((WantsWrite(flags) || truncates) && place.share->Device().IsReadOnly()) {
        call->Fail(EROFS);
        co_return;
    }
    const uint32_t access = AccessOf(flags, *place.share) | (truncates ? nt::FILE_WRITE_DATA : 0);
    Opening opening;
    if (place.share->HasIds()) {
        if (co_await LosesName(node)) {
            call->Fail(ESTALE);
            co_return;
        }
        opening = co_await OpenFileOf(node, place, flags, access);
    } else {
        const RemoteShare::CreateCall open = {.desiredAccess = access,
                                              .createDisposition = nt::FILE_OPEN,
                                              .createOptions = nt::FILE_NON_DIRECTORY_FILE};
        const bool readsAlone = !WantsWrite(flags) && !truncates;
        const IoResult opened = readsAlone ? co_await OpenToRead(node, place, open, &opening.facts)
                                           : co_await OpenNode(node, place, open);
        opening.status = opened.status;
        if (!opened.Failed()) {
            opening.file = NewOpen(node, place.share, opened.fileId, access);
            FileFacts last;
            if (node->LastFacts(&last))
                node->Writes(writeWindow)->NoteFacts(last, 0);
        }
    }
    if (nt::IsError(opening.status)) {
        // The kernel looks the name up again, and knows then.
        if (table.ParentAndNameOf(node, &parent, &name))
            directories.ForgetNames(parent);
        if (SaysAbsent(opening.status))
            call->Fail(ESTALE);
        else
            call->FailStatus(opening.status);
        co_return;
    }
    const OpenFilePtr file = std::move(opening.file);
    if (truncates) {
        const nt::NTSTATUS status = co_await Truncate(node, file->share, file->fileId);
        if (nt::IsError(status)) {
            call->FailStatus(status);
            co_return;
        }
    } else if (place.share->HasIds()) {
        node->NoteFactsOfOpen(opening.facts);
    }
    const uint64_t handle = Keep(file);
    // Whoever opens a file sees it as it is by now, also its size. The node is in use, so this doesn't wait.
    if (fuse_session *const told = file->readable ? session.load() : nullptr)
        fuse_lowlevel_notify_inval_inode(told, node->id, -1, 0);
    if (file->readable && !place.share->HasIds())
        PrimeReading(file);
    if (!call->Opened(handle, CachingOf(flags)))
        Release(nullptr, handle);
}

// Files that a share names one by one may be links: what they lead to is meant.
bool FileSystem::FollowsLinks(const NodePtr &node, const Place &place) const
{
    NodePtr parent;
    std::string name;
    return !place.share->HasIds() ||
           (place.share->Device().IsTagged() && table.ParentAndNameOf(node, &parent, &name) &&
            table.ShareRootOf(parent) == parent);
}

Detached FileSystem::Create(FuseCall::Ptr call, uint64_t parentId, std::string name, mode_t mode, int flags)
{
    const NodePtr parent = table.Find(parentId);
    Place place;
    if (!co_await LocateConfirmed(call, parent, name, &place))
        co_return;
    const uint32_t access = AccessOf(flags, *place.share);
    RemoteShare::CreateCall create = {.desiredAccess = access,
                                      .createDisposition = nt::FILE_OPEN_IF,
                                      .createOptions = nt::FILE_NON_DIRECTORY_FILE,
                                      .fileAttributes = nt::FILE_ATTRIBUTE_NORMAL};
    if (flags & O_EXCL)
        create.createDisposition = nt::FILE_CREATE;
    else if (flags & O_TRUNC)
        create.createDisposition = nt::FILE_OVERWRITE_IF;
    if ((mode & S_IWUSR) == 0)
        create.fileAttributes = nt::FILE_ATTRIBUTE_READONLY;
    parent->NoteOwnChange();
    IoResult opened = co_await OpenAt(place, create);
    if (SaysAbsent(opened.status) && co_await FindPlaceAgain(parent, name, &place))
        opened = co_await OpenAt(place, create);
    if (opened.Failed()) {
        FailCreate(call, opened.status);
        co_return;
    }
    parent->NoteOwnChange();
    const uint32_t fileId = opened.fileId;
    const bool isNew = opened.information == nt::FILE_CREATED;
    FileFacts facts;
    facts.attributes = create.fileAttributes;
    const auto asked = Node::Clock::now();
    const bool hasIds = place.share->HasIds();
    if (!isNew) {
        const nt::NTSTATUS status = co_await QueryFacts(*place.share, fileId, &facts);
        if (nt::IsError(status) && hasIds) {
            place.share->Close(fileId, [](const IoResult &) {});
            call->FailStatus(status);
            co_return;
        }
    } else {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        facts.creationTime = facts.lastAccessTime = facts.lastWriteTime = facts.changeTime = NtTimeOf(now);
    }
    const NodePtr node = hasIds && isNew ? table.ReachNew(parent, name, NodeKind::File)
                                         : table.Reach(parent, name, NodeKind::File, facts.id);
    const std::shared_ptr<WriteBehind> writes = node->Writes(writeWindow);
    writes->DataChanged();
    writes->NoteFacts(facts, isNew ? writes->Generation() : 0);
    node->NoteFacts(facts);
    node->NoteOwnChange();
    const uint64_t handle = Keep(NewOpen(node, place.share, fileId, access), isNew);
    // Its times are this machine's guess: they hold until somebody asks.
    if (!call->Created(AnswerFor(parent, node, facts, false, asked), handle, CachingOf(flags))) {
        table.Forget(node->id, 1);
        Release(nullptr, handle);
    }
}

} // namespace fodr::agent
