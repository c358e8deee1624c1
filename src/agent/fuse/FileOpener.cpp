#include "agent/fuse/FileOpener.h"

#include "agent/fuse/PosixMapping.h"
#include "agent/fuse/Waits.h"
#include "platform/Nt.h"

#include <fcntl.h>

#include <algorithm>

namespace fodr::agent {
namespace {

// Finds an open file again after a lost connection.
class NodeReopen final : public IReopen {
public:
    NodeReopen(NodeTable &nodeTable, NodePtr openNode) : table(nodeTable), node(std::move(openNode)) {}

    bool Place(std::u16string *path) override
    {
        NodeTable::Place place;
        if (!table.PlaceOf(node, &place))
            return false;
        *path = std::move(place.path);
        return true;
    }
    uint64_t ExpectedId() override { return table.FileIdOf(node); }
    // Times may be this machine's guess; what was there in the file should still be.
    bool MayBe(const FileFacts &facts) override
    {
        FileFacts last;
        return facts.IsDirectory() == node->directory &&
               (!node->LastFacts(&last) || facts.endOfFile >= last.endOfFile);
    }

private:
    NodeTable &table;
    const NodePtr node;
};

// For a handle that was just opened. The table outlives it. Of a new file the id is asked for; nobody waits
// for that.
void RememberNode(RemoteShare &share, uint32_t fileId, NodeTable &table, const NodePtr &node, bool isNew)
{
    if (!share.OutlivesConnections())
        return;
    share.Remember(fileId, std::make_shared<NodeReopen>(table, node));
    if (!isNew && share.HasIds())
        return; // who opens it learns its id
    share.QueryInformation(fileId, nt::FileInternalInformation, [&table, node](const IoResult &result) {
        if (!result.Failed() && result.data.size() >= sizeof(uint64_t) && table.FileIdOf(node) == 0)
            table.SetFileId(node, LoadLittle<uint64_t>(result.data.data()));
    });
}

constexpr uint32_t kPrimed = 128 << 10;    // read with the open
constexpr int64_t kWorthPriming = 1 << 20; // files above this are read in ways that can't be foreseen

bool WantsWrite(int flags)
{
    return (flags & O_ACCMODE) != O_RDONLY;
}

constexpr int kMostWaits = 3; // for handles of our own that are being closed

} // namespace

uint32_t FileOpener::AccessOf(int flags, const RemoteShare &share) const
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

RemoteFilePtr FileOpener::NewOpen(const NodePtr &node, const std::shared_ptr<RemoteShare> &share,
                                  uint32_t fileId, uint32_t access)
{
    auto file = std::make_shared<RemoteFile>();
    file->node = node;
    file->share = share;
    file->fileId = fileId;
    file->access = access;
    file->readable = (access & nt::FILE_READ_DATA) != 0;
    file->writable = (access & nt::FILE_WRITE_DATA) != 0;
    file->changesBasics = (access & nt::FILE_WRITE_ATTRIBUTES) != 0;
    const std::shared_ptr<WriteBehind> writes = node->Writes(mount.writeWindow);
    if (file->readable)
        file->readAhead = std::make_shared<ReadAhead>(share, fileId, writes, mount.readWindow);
    return file;
}

// The number by which the kernel names the open file, which counts as one of the node's from now on.
uint64_t FileOpener::Keep(const RemoteFilePtr &file, bool isNew)
{
    file->node->opens.Add(file);
    if (!file->lender)
        RememberNode(*file->share, file->fileId, mount.table, file->node, isNew);
    return mount.openFiles.Keep(file);
}

// A small file that is opened for reading is read: its bytes come while the kernel asks for its facts.
void FileOpener::PrimeReading(const RemoteFilePtr &file)
{
    FileFacts facts;
    if (file->writable || !file->node->LastFacts(&facts) || facts.endOfFile <= 0 ||
        facts.endOfFile > kWorthPriming)
        return;
    // One byte more shows the end.
    const auto length = static_cast<uint32_t>(std::min<int64_t>(facts.endOfFile + 1, kPrimed));
    file->readAhead->Prime(length, length > facts.endOfFile);
}

// Its time tells how much data has to be on its way.
Task<IoResult> FileOpener::OpenAt(const Place &place, const RemoteShare::CreateCall &open)
{
    const auto begun = TransferWindow::Clock::now();
    const bool alone = mount.readWindow.InFlight() == 0 && mount.writeWindow.InFlight() == 0;
    IoResult opened = co_await place.share->Create(open, place.path);
    if (!opened.Failed()) { // a failure may be this side's own
        const auto now = TransferWindow::Clock::now();
        mount.readWindow.NoteRoundTrip(begun, alone, now);
        mount.writeWindow.NoteRoundTrip(begun, alone, now);
    }
    co_return opened;
}

Task<IoResult> FileOpener::OpenNode(NodePtr node, Place place, RemoteShare::CreateCall open)
{
    NodePtr parent;
    std::string name;
    if (!mount.table.ParentAndNameOf(node, &parent, &name))
        parent = node;
    const GateHold passed = co_await PassGate(parent, NameGate::Entry::Shared);
    uint64_t ended = node->opens.ClosesEnded();
    IoResult opened = co_await OpenAt(place, open);
    for (int i = 0; i < kMostWaits && opened.status == nt::STATUS_SHARING_VIOLATION; ++i) {
        if (!node->opens.IsClosing() && node->opens.ClosesEnded() == ended)
            break;
        co_await AwaitNoneClosing(node);
        ended = node->opens.ClosesEnded();
        opened = co_await OpenAt(place, open);
    }
    co_return opened;
}

// Opens for reading alone. `*facts` are as of the open, if the other side told them.
Task<IoResult> FileOpener::OpenToRead(NodePtr node, Place place, RemoteShare::CreateCall open,
                                      FileFacts *facts)
{
    // What this mount writes itself must stay open to it.
    if (mount.options.denyWriters && !node->opens.Any(true)) {
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

// Another file has the name by now. The kernel is told to look again, and finds it open.
void FileOpener::OpenedAnother(int caller, const NodePtr &parent, const std::string &name,
                               const std::shared_ptr<RemoteShare> &share, uint32_t fileId, uint32_t access,
                               const FileFacts &facts)
{
    mount.directories.ForgetNames(parent);
    mount.openedAhead.Keep({.caller = caller,
                            .parent = parent,
                            .name = name,
                            .handle = std::make_shared<OpenedAhead::Handle>(share, fileId),
                            .access = access,
                            .facts = facts});
    mount.notifier.CallAt(Node::Clock::now() + OpenedAhead::kSpan,
                          [this] { mount.openedAhead.Purge(false); });
}

// One more open by a handle that is there: `lender` owns it.
Task<Opening> FileOpener::OpenByLent(NodePtr node, std::shared_ptr<RemoteShare> share, uint32_t fileId,
                                     uint32_t access, std::shared_ptr<void> lender)
{
    Opening opening;
    opening.file = NewOpen(node, share, fileId, access);
    opening.file->lender = lender;
    opening.file->givenAway = true;
    opening.status = co_await share->QueryFacts(fileId, &opening.facts);
    co_return opening;
}

// The kernel says which file it opens, not by which name. A name that leads to another file by now is lost.
Task<bool> FileOpener::LosesName(NodePtr node)
{
    bool loses = false;
    for (const Node::Name &name : mount.table.OtherNamesOf(node)) {
        const Found found = co_await finder.FindPassing(name.parent, name.text, Freshness::Asked);
        const bool another = !nt::IsError(found.status) && found.facts.id != mount.table.FileIdOf(node);
        if (another || SaysAbsent(found.status)) {
            mount.LoseName(name.parent, name.text, node);
            loses = true;
        }
    }
    co_return loses;
}

Task<IoResult> FileOpener::OpenFor(NodePtr node, Place place, RemoteShare::CreateCall open, int flags,
                                   FileFacts *facts)
{
    const bool readsAlone = !WantsWrite(flags) && (flags & O_TRUNC) == 0;
    if (readsAlone)
        co_return co_await OpenToRead(node, place, open, facts);
    co_return co_await OpenNode(node, place, open);
}

// Without ids what has the name is the file.
Task<Opening> FileOpener::OpenByName(NodePtr node, Place place, int flags, uint32_t access)
{
    const RemoteShare::CreateCall open = {.desiredAccess = access,
                                          .createDisposition = nt::FILE_OPEN,
                                          .createOptions = nt::FILE_NON_DIRECTORY_FILE};
    Opening opening;
    const IoResult opened = co_await OpenFor(node, place, open, flags, &opening.facts);
    opening.status = opened.status;
    if (opened.Failed())
        co_return opening;
    opening.file = NewOpen(node, place.share, opened.fileId, access);
    FileFacts last;
    if (node->LastFacts(&last))
        node->Writes(mount.writeWindow)->NoteFacts(last, 0);
    co_return opening;
}

// STATUS_OBJECT_NAME_NOT_FOUND: `*another` was opened by the name, and is to be closed by the caller.
Task<Opening> FileOpener::OpenAndIdentify(NodePtr node, Place place, int flags, uint32_t access,
                                          RemoteFilePtr *another)
{
    const uint64_t known = mount.table.FileIdOf(node);
    const uint32_t links = mount.FollowsLinks(node, place) ? 0 : nt::FILE_OPEN_REPARSE_POINT;
    const RemoteShare::CreateCall open = {.desiredAccess = access,
                                          .createDisposition = nt::FILE_OPEN,
                                          .createOptions = nt::FILE_NON_DIRECTORY_FILE | links};
    Opening opening;
    const IoResult opened = co_await OpenFor(node, place, open, flags, &opening.facts);
    opening.status = opened.status;
    if (opened.Failed())
        co_return opening;
    const RemoteFilePtr file = NewOpen(node, place.share, opened.fileId, access);
    if ((flags & O_TRUNC) == 0)
        PrimeReading(file);
    const std::shared_ptr<WriteBehind> writes = node->Writes(mount.writeWindow);
    const uint64_t asked = writes->Generation();
    opening.status = co_await place.share->QueryFacts(file->fileId, &opening.facts);
    if (nt::IsError(opening.status))
        co_return opening;
    if (known == 0)
        mount.table.SetFileId(node, opening.facts.id);
    if (known == 0 || known == opening.facts.id) {
        writes->NoteFacts(opening.facts, asked);
        opening.file = file;
        co_return opening;
    }
    file->givenAway = true;
    *another = file;
    opening.status = nt::STATUS_OBJECT_NAME_NOT_FOUND;
    co_return opening;
}

Task<Opening> FileOpener::OpenFileOf(NodePtr node, Place place, int flags, uint32_t access, int caller)
{
    if (mount.table.FileIdOf(node) == 0 && node->opens.IsOpen())
        co_await places.Identify(node);
    const bool lookedAgain = node->IsAhead(caller, OpenedAhead::kSpan);
    if (lookedAgain) {
        const std::optional<OpenedAhead::Found> ahead =
            mount.openedAhead.Take(caller, place.share, mount.table.FileIdOf(node), access);
        if (ahead) {
            const std::shared_ptr<void> lender = ahead->handle;
            co_return co_await OpenByLent(node, place.share, ahead->handle->fileId, access, lender);
        }
    }
    for (bool first = true;; first = false) {
        RemoteFilePtr another;
        Opening opening = co_await OpenAndIdentify(node, place, flags, access, &another);
        if (!SaysAbsent(opening.status) && opening.status != nt::STATUS_FILE_IS_A_DIRECTORY)
            co_return opening;
        // Another file, or none, has the name. Or its folder was moved, and the file with it.
        NodePtr parent;
        std::string name;
        const bool named = mount.table.ParentAndNameOf(node, &parent, &name) ||
                           mount.table.FormerPlaceOf(node, &parent, &name);
        const Standing standing =
            named ? co_await places.Confirm(parent, Believing::Nothing) : Standing::Gone;
        Place now;
        const bool moved =
            standing == Standing::Here && mount.table.PlaceIn(parent, name, &now) && now.path != place.path;
        const RemoteFilePtr lender = lookedAgain ? node->opens.AnyWith(access) : nullptr;
        if (another && standing == Standing::Here && !moved && !lender)
            OpenedAnother(caller, parent, name, place.share, another->fileId, access, opening.facts);
        else if (another)
            place.share->Close(another->fileId, [](const IoResult &) {});
        if (moved && first) {
            place = now;
            continue;
        }
        if (lender) {
            const std::shared_ptr<void> owner = lender;
            co_return co_await OpenByLent(node, lender->share, lender->fileId, lender->access, owner);
        }
        if (named)
            mount.LoseName(parent, name, node);
        opening.status = nt::STATUS_FILE_DELETED;
        co_return opening;
    }
}

} // namespace fodr::agent
