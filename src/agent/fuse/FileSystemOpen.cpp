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

uint32_t AccessOf(int flags)
{
    uint32_t access = nt::FILE_READ_ATTRIBUTES | nt::SYNCHRONIZE;
    if ((flags & O_ACCMODE) != O_WRONLY)
        access |= nt::FILE_READ_DATA;
    if (WantsWrite(flags))
        access |= nt::FILE_WRITE_DATA | nt::FILE_APPEND_DATA | nt::FILE_WRITE_ATTRIBUTES;
    return access;
}

} // namespace

// The number by which the kernel names the open file.
uint64_t FileSystem::KeepOpen(const NodePtr &node, const std::shared_ptr<RemoteShare> &share, uint32_t fileId,
                              int flags)
{
    auto file = std::make_shared<OpenFile>();
    file->node = node;
    file->share = share;
    file->fileId = fileId;
    file->readable = (flags & O_ACCMODE) != O_WRONLY;
    file->writable = WantsWrite(flags);
    const std::shared_ptr<WriteBehind> writes = node->Writes(writeWindow);
    if (file->readable)
        file->readAhead = std::make_shared<ReadAhead>(share, fileId, writes, readWindow);
    node->opens.Add(file);
    RememberNode(*share, fileId, table, node);
    return openFiles.Keep(std::move(file));
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

// Opens the node's file, or what is by now where the kernel last saw it: who opens a name while it is being
// replaced gets the old file or the new one, never nothing.
Task<IoResult> FileSystem::OpenNode(NodePtr node, RemoteShare::CreateCall open, Place *place)
{
    const GateHold passed = co_await PassGate(table.ShownParentOf(node), NameGate::Entry::Shared);
    IoResult opened = {.status = nt::STATUS_OBJECT_NAME_NOT_FOUND};
    if (table.PlaceOf(node, place))
        opened = co_await OpenAt(*place, open);
    if (SaysAbsent(opened.status) && table.ShownPlaceOf(node, place))
        opened = co_await OpenAt(*place, open);
    co_return opened;
}

// Opens for reading alone. `*facts` are as of the open, if the other side told them.
Task<IoResult> FileSystem::OpenToRead(NodePtr node, RemoteShare::CreateCall open, Place *place,
                                      FileFacts *facts)
{
    // What this mount writes itself must stay open to it.
    if (options.denyWriters && !node->opens.Any(true)) {
        RemoteShare::CreateCall denying = open;
        denying.sharedAccess = nt::FILE_SHARE_READ | nt::FILE_SHARE_DELETE;
        denying.createOptions |= nt::FILE_SEQUENTIAL_ONLY;
        const IoResult opened = co_await OpenNode(node, denying, place);
        if (!opened.Failed() && ReadPreReadFacts(opened.preRead, facts))
            node->NoteFactsOfOpen(*facts);
        if (opened.status != nt::STATUS_SHARING_VIOLATION)
            co_return opened;
    }
    const IoResult opened = co_await OpenNode(node, open, place);
    co_return opened;
}

Detached FileSystem::Open(FuseCall::Ptr call, uint64_t nodeId, int flags)
{
    const NodePtr node = table.Find(nodeId);
    Place place;
    if (!node || !(table.PlaceOf(node, &place) || table.ShownPlaceOf(node, &place))) {
        call->Fail(ESTALE);
        co_return;
    }
    const bool truncates = (flags & O_TRUNC) != 0;
    if ((WantsWrite(flags) || truncates) && place.share->Device().IsReadOnly()) {
        call->Fail(EROFS);
        co_return;
    }
    const RemoteShare::CreateCall open = {.desiredAccess =
                                              AccessOf(flags) | (truncates ? nt::FILE_WRITE_DATA : 0),
                                          .createDisposition = nt::FILE_OPEN,
                                          .createOptions = nt::FILE_NON_DIRECTORY_FILE};
    FileFacts facts;
    const bool readsAlone = !WantsWrite(flags) && !truncates;
    const IoResult opened =
        readsAlone ? co_await OpenToRead(node, open, &place, &facts) : co_await OpenNode(node, open, &place);
    if (opened.Failed()) {
        // The kernel looks the name up again, and knows then.
        directories.ForgetNames(table.ShownParentOf(node));
        if (SaysAbsent(opened.status))
            call->Fail(ESTALE);
        else
            call->FailStatus(opened.status);
        co_return;
    }
    const uint32_t fileId = opened.fileId;
    if (truncates) {
        // Not by overwriting: that would take attributes and streams along.
        const std::shared_ptr<WriteBehind> writes = node->Writes(writeWindow);
        co_await AwaitCall([&](InlineFunction<void()> done) { writes->WhenDone(std::move(done)); });
        node->NoteOwnChange();
        const std::array<uint8_t, 8> nothing{};
        const IoResult result = co_await SetFile(*place.share, fileId, nt::FileEndOfFileInformation, nothing);
        writes->DataChanged();
        node->NoteOwnChange();
        if (result.Failed()) {
            CloseLater(node, place.share, fileId);
            call->FailStatus(result.status);
            co_return;
        }
    }
    const uint64_t handle = KeepOpen(node, place.share, fileId, flags);
    const OpenFilePtr file = openFiles.Of(handle);
    // Whoever opens a file sees it as it is by now, also its size. The node is in use, so this doesn't wait.
    if (file->readable && session)
        fuse_lowlevel_notify_inval_inode(session, node->id, -1, 0);
    if (file->readable)
        PrimeReading(file);
    if (!call->Opened(handle))
        Release(nullptr, handle);
}

Detached FileSystem::Create(FuseCall::Ptr call, uint64_t parentId, std::string name, mode_t mode, int flags)
{
    const NodePtr parent = table.Find(parentId);
    Place place;
    if (!LocateForChange(call, parent, name, &place))
        co_return;
    RemoteShare::CreateCall create = {.desiredAccess = AccessOf(flags),
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
    const IoResult opened = co_await OpenAt(place, create);
    if (opened.Failed()) {
        call->FailStatus(opened.status);
        co_return;
    }
    parent->NoteOwnChange();
    const uint32_t fileId = opened.fileId;
    const bool isNew = opened.information == nt::FILE_CREATED;
    FileFacts facts;
    facts.attributes = create.fileAttributes;
    if (!isNew) {
        const IoResult result = co_await QueryFile(*place.share, fileId, nt::FileNetworkOpenInformation);
        if (!result.Failed() && !ReadNetworkOpenInformation(result.data, &facts))
            facts = {};
    } else {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        facts.creationTime = facts.lastAccessTime = facts.lastWriteTime = facts.changeTime = NtTimeOf(now);
    }
    const NodePtr node = table.Reach(parent, name, false);
    if (const std::shared_ptr<WriteBehind> writes = node->WritesIfAny())
        writes->DataChanged();
    node->NoteFacts(facts);
    node->NoteOwnChange();
    const uint64_t handle = KeepOpen(node, place.share, fileId, flags);
    // Its times are this machine's guess: they hold until somebody asks.
    if (!call->Created(AnswerFor(node, facts, false), handle)) {
        table.Forget(node->id, 1);
        Release(nullptr, handle);
    }
}

// ---- Data ----

void FileSystem::Read(FuseCall::Ptr call, uint64_t handle, uint64_t offset, uint32_t length)
{
    const OpenFilePtr &file = openFiles.Of(handle);
    if (!file->readable) {
        call->Fail(EBADF);
        return;
    }
    // What is being written there is read as it will be.
    file->node->Writes(writeWindow)->WhenRangeDone(offset, length, [call, file, offset, length] {
        file->readAhead->Read(offset, length, [call](nt::NTSTATUS status, std::span<const ByteSpan> parts) {
            if (nt::IsError(status))
                call->FailStatus(status);
            else
                call->Parts(parts);
        });
    });
}

void FileSystem::Write(FuseCall::Ptr call, uint64_t handle, uint64_t offset, ByteSpan bytes)
{
    const OpenFilePtr &file = openFiles.Of(handle);
    if (!file->writable) {
        call->Fail(EBADF);
        return;
    }
    const nt::NTSTATUS earlier = file->errors->TakeForWrite();
    if (nt::IsError(earlier)) {
        call->FailStatus(earlier);
        return;
    }
    file->node->NoteOwnChange();
    file->node->Writes(writeWindow)->Write(file->Target(), offset, bytes, [call, size = bytes.size()] {
        call->Written(size);
    });
}

// Of flush and fsync alike: nothing counts as written that the other side hasn't acknowledged.
void FileSystem::Flush(FuseCall::Ptr call, uint64_t handle)
{
    const OpenFilePtr &file = openFiles.Of(handle);
    file->node->Writes(writeWindow)->WhenDone([call, errors = file->errors] {
        call->FailStatus(errors->TakeForFlush());
    });
}

// The call may be null: the kernel never got the handle.
void FileSystem::Release(FuseCall::Ptr call, uint64_t handle)
{
    const OpenFilePtr file = openFiles.Drop(handle);
    // Counted from now on, so that a rename that follows waits for it.
    file->node->opens.BeginClose();
    file->released = true;
    file->node->opens.Remove(file);
    // Holds the file until its writes are over.
    file->node->Writes(writeWindow)->WhenDone([file] {
        if (file->writable)
            file->node->NoteOwnChange();
    });
    CloseDeletion(file->node, file->share);
    if (call)
        call->Done();
}

} // namespace fodr::agent
