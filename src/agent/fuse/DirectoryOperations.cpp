#include "agent/fuse/Fuse.h"
#include "agent/fuse/Operations.h"
#include "agent/fuse/PosixMapping.h"
#include "platform/Nt.h"

#include <cerrno>
#include <memory>

namespace fodr::agent {

// For so long a listing waits for who has stopped reading it.
constexpr auto kReaderIdles = std::chrono::seconds(1);

// The answer to one readdir or readdirplus, as it is filled.
class ReaddirBuffer {
public:
    ReaddirBuffer(size_t size, bool plusForm) : bytes(size), plus(plusForm) {}

    // Adds a name; without a node the kernel takes the name and its kind alone. `next` is the position behind
    // it. False when there is no room.
    bool Add(const std::string &name, const EntryAnswer &entry, uint64_t next)
    {
        const auto position = static_cast<off_t>(next);
        // The library doesn't look at the request.
        if (!plus)
            return Took(fuse_add_direntry(nullptr, At(), Room(), name.c_str(), &entry.attributes, position));
        fuse_entry_param param = {};
        param.ino = entry.node;
        param.attr = entry.attributes;
        param.attr_timeout = entry.attributeSeconds;
        param.entry_timeout = entry.nameSeconds;
        return Took(fuse_add_direntry_plus(nullptr, At(), Room(), name.c_str(), &param, position));
    }
    ByteSpan Filled() const { return {reinterpret_cast<const uint8_t *>(bytes.data()), used}; }
    bool IsPlus() const { return plus; }

private:
    char *At() { return bytes.data() + used; }
    size_t Room() const { return bytes.size() - used; }
    bool Took(size_t size)
    {
        if (size > Room())
            return false;
        used += size;
        return true;
    }

    std::vector<char> bytes;
    size_t used = 0;
    const bool plus;
};
namespace {

constexpr ino_t kUnknownInode = 0xFFFFFFFF; // as the library itself says it; 0 would mean a deleted entry

constexpr auto kTurnedAway = std::chrono::milliseconds(50);

} // namespace

Detached DirectoryOperations::OpenDirectory(FuseCall::Ptr call, uint64_t nodeId)
{
    auto open = std::make_shared<OpenListing>();
    open->node = mount.table.Find(nodeId);
    if (!open->node) {
        call->Fail(ESTALE);
        co_return;
    }
    if (!(mount.options.folders && open->node == mount.table.Root())) {
        const nt::NTSTATUS status = co_await BeginListing(open);
        if (nt::IsError(status)) {
            call->FailInFolder(status);
            co_return;
        }
        const bool another = co_await ListsAnother(*open);
        if (another || (mount.table.IsMoved(open->node) && open->node->TurnAway(kTurnedAway))) {
            call->Fail(ESTALE);
            co_return;
        }
    }
    const uint64_t handle = mount.openListings.Keep(std::move(open));
    if (!call->Opened(handle))
        mount.openListings.Drop(handle);
}

// Where no notice would have told, the folder may have lost its name to the one that was opened.
Task<bool> DirectoryOperations::ListsAnother(const OpenListing &open)
{
    const uint64_t known = mount.table.FileIdOf(open.node);
    NodePtr parent;
    std::string name;
    if (known == 0 || !mount.table.ParentAndNameOf(open.node, &parent, &name) ||
        places.IsConfirmed(parent, open.node))
        co_return false;
    FileFacts facts;
    const nt::NTSTATUS status = co_await open.listing->Share().QueryFacts(open.listing->FileId(), &facts);
    if (nt::IsError(status) || facts.id == known)
        co_return false;
    mount.LoseName(parent, name, open.node);
    co_return true;
}

Task<nt::NTSTATUS> DirectoryOperations::BeginListing(OpenListingPtr open)
{
    Place place;
    if (!mount.table.PlaceOf(open->node, &place) &&
        (co_await places.Confirm(open->node, Believing::Nothing) != Standing::Here ||
         !mount.table.PlaceOf(open->node, &place)))
        co_return open->node == mount.table.Root() ? nt::STATUS_DEVICE_REMOVED
                                                   : nt::STATUS_OBJECT_PATH_NOT_FOUND;
    const RemoteShare::CreateCall create = {.desiredAccess = nt::FILE_LIST_DIRECTORY |
                                                             nt::FILE_READ_ATTRIBUTES | nt::SYNCHRONIZE,
                                            .createDisposition = nt::FILE_OPEN,
                                            .createOptions = nt::FILE_DIRECTORY_FILE};
    // A removal of the folder waits until it is known whether there is a handle.
    open->node->opens.BeginClose();
    IoResult opened = co_await place.share->Create(create, place.path);
    if (SaysNoSuchFolder(opened.status)) {
        const Standing standing = co_await places.Confirm(open->node, Believing::Nothing);
        if (standing == Standing::Here && mount.table.PlaceOf(open->node, &place))
            opened = co_await place.share->Create(create, place.path);
        if (SaysNoSuchFolder(opened.status))
            opened.status = nt::STATUS_OBJECT_PATH_NOT_FOUND;
    }
    if (opened.Failed()) {
        const nt::NTSTATUS status = opened.status;
        open->node->opens.EndClose();
        co_return status;
    }
    const bool rootOfShare = place.path.size() == 1;
    open->listing = std::make_shared<DirectoryListing>(open->node, place.share, opened.fileId, rootOfShare,
                                                       rootOfShare ? 0 : mount.table.FileIdOf(open->node));
    open->node->NoteListing(open->listing);
    open->node->opens.EndClose();
    co_return nt::STATUS_SUCCESS;
}

// Positions: 1 and 2 are behind "." and "..", 3 + i behind entry i.
Detached DirectoryOperations::ReadDirectory(FuseCall::Ptr call, OpenListingPtr open, size_t size,
                                            uint64_t offset, bool plus)
{
    if (open->listing && offset == 0 && open->listing->IsBegun()) {
        // From the start again: the folder as it is now.
        const nt::NTSTATUS status = co_await BeginListing(open);
        if (nt::IsError(status)) {
            call->FailInFolder(status);
            co_return;
        }
    }
    const uint64_t first = offset < 2 ? 0 : offset - 2;
    std::shared_ptr<DirectoryListing> listing = open->listing;
    for (bool again = false; listing; again = true) {
        co_await AwaitCall([&](InlineFunction<void()> done) { listing->WhenKnown(first, std::move(done)); });
        nt::NTSTATUS status = listing->Status();
        // What a lost connection has ended begins anew while nothing of it has been given away.
        const bool lost = SaysStaleHandle(status) || status == STATUS_CONNECTION_DISCONNECTED;
        if (lost && first == 0 && !again) {
            status = co_await BeginListing(open);
            listing = open->listing;
            if (!nt::IsError(status))
                continue;
        }
        if (nt::IsError(status) && (lost || !listing->At(first))) {
            call->FailInFolder(status);
            co_return;
        }
        break;
    }
    if (listing && listing->BeginsToWait())
        WaitForReader(listing);
    std::vector<uint64_t> reached; // nodes with a lookup more
    ReaddirBuffer buffer(size, plus);
    FillListing(*open, offset, &buffer, &reached);
    if (!call->Bytes(buffer.Filled())) {
        for (uint64_t node : reached)
            mount.table.Forget(node, 1);
    }
}

void DirectoryOperations::WaitForReader(const std::shared_ptr<DirectoryListing> &listing)
{
    mount.notifier.CallAt(Node::Clock::now() + kReaderIdles,
                          [this, weak = std::weak_ptr<DirectoryListing>(listing)] {
                              const std::shared_ptr<DirectoryListing> alive = weak.lock();
                              if (alive && !alive->GoOnIfIdle(kReaderIdles))
                                  WaitForReader(alive);
                          });
}

// What was learnt of the name since the listing was asked for counts.
bool DirectoryOperations::IsKnownBetter(const NodePtr &folder, const DirectoryListing::Entry &entry) const
{
    if (mount.ChangedBySelf(folder, entry.name, entry.asked))
        return true;
    const NodePtr known = mount.table.Child(folder, entry.name);
    return known && known->SeenAt() > entry.asked;
}

void DirectoryOperations::FillListing(const OpenListing &open, uint64_t offset, ReaddirBuffer *buffer,
                                      std::vector<uint64_t> *reached)
{
    static const std::string kSelfAndParent[] = {".", ".."};
    EntryAnswer folder;
    folder.attributes.st_mode = S_IFDIR;
    folder.attributes.st_ino = kUnknownInode;
    for (; offset < 2; ++offset) {
        if (!buffer->Add(kSelfAndParent[offset], folder, offset + 1))
            return;
    }
    if (!open.listing) {
        const std::vector<std::string> folders = mount.table.ShareFolders();
        for (; offset - 2 < folders.size(); ++offset) {
            if (!buffer->Add(folders[offset - 2], folder, offset + 1))
                return;
        }
        return;
    }
    while (const DirectoryListing::Entry *entry = open.listing->At(offset - 2)) {
        ++offset;
        EntryAnswer answer;
        answer.attributes = StatOf(entry->facts, kUnknownInode, mount.options.owner);
        const bool known = open.listing->Knows(*entry);
        if (!known)
            answer.attributes.st_mode = 0; // it isn't a file for sure
        if (known && buffer->IsPlus() && !IsKnownBetter(open.node, *entry)) {
            const NodePtr node = mount.Reach(open.node, entry->name, entry->facts, entry->facts.id);
            node->NoteFacts(entry->facts);
            node->NoteSeen(entry->asked);
            answer = mount.AnswerFor(open.node, node, entry->facts, true, entry->asked);
            reached->push_back(node->id);
        }
        if (buffer->Add(entry->name, answer, offset))
            continue;
        if (answer.node != 0) {
            reached->pop_back();
            mount.table.Forget(answer.node, 1);
        }
        return;
    }
}

void DirectoryOperations::ReleaseDirectory(FuseCall::Ptr call, uint64_t handle)
{
    mount.openListings.Drop(handle);
    call->Done();
}

} // namespace fodr::agent
