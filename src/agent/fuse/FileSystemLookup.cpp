#include "agent/fuse/FileSystem.h"
#include "agent/fuse/RemoteCalls.h"
#include "agent/fuse/StatusErrno.h"
#include "lib/unicode/NameMapping.h"
#include "platform/Nt.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace fodr::agent {
namespace {

// The entry of the name in the answer to a search for it: the exact one, or the first, which differs in case.
bool PickEntry(ByteSpan answer, const std::u16string &wanted, FileFacts *facts)
{
    bool found = false;
    DirectoryReader reader(answer);
    std::u16string ntName;
    for (DirectoryReader::Entry entry; reader.Next(&entry);) {
        entry.CopyName(&ntName);
        const bool exact = ntName == wanted;
        if (found && !exact)
            continue;
        *facts = entry.facts;
        found = true;
        if (exact)
            break;
    }
    return found;
}

} // namespace

// ---- Finding names ----

Task<FileSystem::Found> FileSystem::Find(NodePtr parent, std::string name, Asking asking)
{
    if (name.starts_with(kHiddenPrefix))
        co_return Found{.status = nt::STATUS_OBJECT_NAME_NOT_FOUND, .facts = {}, .age = 0, .told = {}};
    bool decided = false;
    Found found = co_await FindByHandle(parent, name, asking, &decided);
    if (decided)
        co_return found;
    Place place;
    if (!table.PlaceIn(parent, name, &place))
        co_return Found{.status = nt::STATUS_OBJECT_PATH_NOT_FOUND, .facts = {}, .age = 0, .told = {}};
    found = co_await FindByPath(place);
    co_return found;
}

// Not while a name is taken away for a moment.
Task<FileSystem::Found> FileSystem::FindPassing(NodePtr parent, std::string name, Asking asking)
{
    const GateHold passed = co_await PassGate(parent, NameGate::Entry::Shared);
    Found found = co_await Find(parent, name, asking);
    co_return found;
}

// Asks for as many names of the folder as one answer holds.
void FileSystem::AskForNames(const DirectoryHandlePtr &directory)
{
    // Nobody who ends the handle's use waits for this.
    auto take = [asked = Node::Clock::now(),
                 weak = std::weak_ptr<DirectoryHandle>(directory)](const IoResult &result) {
        if (const DirectoryHandlePtr alive = weak.lock())
            alive->Names().Answered(asked, result.Failed() ? ByteSpan{} : result.data);
    };
    directory->Share().QueryDirectory(directory->FileId(), nt::FileFullDirectoryInformation, true, u"*",
                                      std::move(take));
}

// What the folder's names were told to be lately, if that still holds.
bool FileSystem::Recall(const NodePtr &parent, const std::string &name, const std::u16string &ntName,
                        const DirectoryHandlePtr &directory, Found *found)
{
    const auto now = Node::Clock::now();
    // Names that come and go all the time aren't worth it.
    bool ask = !parent->ChangedSince(now - CacheSpan());
    RecentNames::ToldPtr told = directory->Names().Recall(now, CacheSpan(), &ask);
    if (ask)
        AskForNames(directory);
    if (!told || !IsAsTold(parent, name, told->asked))
        return false;
    const auto entry = told->names.find(ntName);
    if (entry == told->names.end())
        return false;
    directory->Names().NoteUse();
    found->facts = entry->second;
    found->age = std::chrono::duration<double>(now - told->asked).count();
    found->told = std::move(told);
    return true;
}

// One request at most, once the folder is open. Not decided: another way has to be tried.
Task<FileSystem::Found> FileSystem::FindByHandle(NodePtr parent, std::string name, Asking asking,
                                                 bool *decided)
{
    Found found;
    Place place;
    if (!table.PlaceOf(parent, &place) || place.share->Device().IsTagged())
        co_return found;
    const auto [acquired, directory] = co_await AwaitDirectory(parent);
    if (!directory) {
        found.status = acquired;
        *decided = acquired != nt::STATUS_ACCESS_DENIED && acquired != nt::STATUS_SHARING_VIOLATION;
        co_return found;
    }
    const std::u16string wanted = NtNameFromPosix(name);
    if (asking == Asking::Lately && Recall(parent, name, wanted, directory, &found)) {
        *decided = true;
        co_return found;
    }
    const IoResult result = co_await SearchDirectory(directory->Share(), directory->FileId(), wanted);
    found.status = result.status;
    if (!result.Failed() && !PickEntry(result.data, wanted, &found.facts))
        found.status = nt::STATUS_OBJECT_NAME_NOT_FOUND;
    if (found.status == nt::STATUS_INVALID_HANDLE || found.status == nt::STATUS_CANCELLED ||
        found.status == STATUS_FILE_INVALID) {
        directories.Drop(parent);
        co_return found;
    }
    *decided = true;
    co_return found;
}

Task<FileSystem::Found> FileSystem::FindByPath(Place place)
{
    Found found;
    const RemoteShare::CreateCall open = {.desiredAccess = nt::FILE_READ_ATTRIBUTES | nt::SYNCHRONIZE,
                                          .createDisposition = nt::FILE_OPEN};
    const IoResult opened = co_await CreateFile(*place.share, open, place.path);
    found.status = opened.status;
    if (opened.Failed())
        co_return found;
    const uint32_t fileId = opened.fileId;
    const IoResult result = co_await QueryFile(*place.share, fileId, nt::FileNetworkOpenInformation);
    found.status = result.status;
    if (!result.Failed() && !ReadNetworkOpenInformation(result.data, &found.facts))
        found.status = STATUS_INVALID_NETWORK_RESPONSE;
    co_await CloseFile(*place.share, fileId);
    co_return found;
}

Detached FileSystem::Lookup(FuseCall::Ptr call, uint64_t parentId, std::string name)
{
    const NodePtr parent = table.Find(parentId);
    if (!parent) {
        call->Fail(ESTALE);
        co_return;
    }
    if (options.folders && parent == table.Root()) {
        const NodePtr folder = table.ReachShareFolder(name);
        if (!folder) {
            call->Fail(ENOENT);
            co_return;
        }
        const Found root = co_await FactsOf(folder);
        if (nt::IsError(root.status)) {
            table.Forget(folder->id, 1);
            call->FailStatus(root.status);
        } else {
            ReplyEntry(call, folder, root.facts, true);
        }
        co_return;
    }
    // Names that differ in case are different nodes, also where they lead to one file: a rename from one case
    // to another would be nothing to the kernel otherwise.
    // What is being written is looked up as it will be.
    const NodePtr known = table.Child(parent, name);
    const std::shared_ptr<WriteBehind> writes = known ? known->WritesIfAny() : nullptr;
    if (writes)
        co_await AwaitCall([&](InlineFunction<void()> done) { writes->WhenDone(std::move(done)); });
    const Found found = co_await FindPassing(parent, name, Asking::Lately);
    if (nt::IsError(found.status)) {
        if (SaysAbsent(found.status))
            call->Fail(ENOENT);
        else
            call->FailStatus(found.status);
        co_return;
    }
    const NodePtr node = table.Reach(parent, name, found.facts.IsDirectory());
    node->NoteFacts(found.facts);
    // A folder may tell late what becomes of a file while it is open.
    if (node->opens.IsOpen()) {
        const Found present = co_await FactsOf(node);
        if (!nt::IsError(present.status)) {
            ReplyEntry(call, node, present.facts, false);
            co_return;
        }
    }
    // Who is told of a change meanwhile may not have found the node yet.
    const bool outdated = found.told && found.told->forgotten;
    ReplyEntry(call, node, found.facts, true, outdated ? options.cacheSeconds : found.age);
}

// ---- Facts of nodes ----

// Of what is open by its handle, of others by their name.
Task<FileSystem::Found> FileSystem::FactsOf(NodePtr node, Asking asking)
{
    Found found;
    const std::shared_ptr<WriteBehind> writes = node->WritesIfAny();
    if (writes)
        co_await AwaitCall([&](InlineFunction<void()> done) { writes->WhenDone(std::move(done)); });
    const OpenFilePtr file = node->opens.Any(false);
    NodePtr parent;
    std::string name;
    if (file) {
        if (node->TakeFactsOfOpen(CacheSpan(), &found.facts))
            co_return found;
        const IoResult result =
            co_await QueryFile(*file->share, file->fileId, nt::FileNetworkOpenInformation);
        found.status = result.status;
        if (!result.Failed() && !ReadNetworkOpenInformation(result.data, &found.facts))
            found.status = STATUS_INVALID_NETWORK_RESPONSE;
    } else if (!table.SpotOf(node, &parent, &name) || (options.folders && parent == table.Root())) {
        found = co_await FactsOfDirectory(node);
    } else {
        found = co_await FindPassing(parent, name, asking);
        // Another file by now, where the kernel knows this one.
        if (!nt::IsError(found.status) && found.facts.IsDirectory() != node->directory)
            found.status = nt::STATUS_OBJECT_NAME_NOT_FOUND;
    }
    if (!nt::IsError(found.status))
        node->NoteFacts(found.facts);
    co_return found;
}

// Of a share's root, which has no entry anywhere.
Task<FileSystem::Found> FileSystem::FactsOfDirectory(NodePtr node)
{
    Found found;
    const auto [acquired, directory] = co_await AwaitDirectory(node);
    found.status = acquired;
    if (!directory) {
        if (node == table.Root())
            found.status = nt::STATUS_DEVICE_REMOVED;
        co_return found;
    }
    const IoResult result =
        co_await QueryFile(directory->Share(), directory->FileId(), nt::FileNetworkOpenInformation);
    found.status = result.status;
    if (!result.Failed() && !ReadNetworkOpenInformation(result.data, &found.facts))
        found.status = STATUS_INVALID_NETWORK_RESPONSE;
    if (result.status == nt::STATUS_INVALID_HANDLE)
        directories.Drop(node);
    co_return found;
}

Detached FileSystem::GetAttributes(FuseCall::Ptr call, uint64_t nodeId)
{
    const NodePtr node = table.Find(nodeId);
    if (!node) {
        call->Fail(ESTALE);
        co_return;
    }
    if (options.folders && node == table.Root()) {
        FileFacts root;
        root.attributes = nt::FILE_ATTRIBUTE_DIRECTORY;
        root.lastWriteTime = NtTimeOf({});
        call->Attributes(StatOf(root, node->id, options.owner), 0);
        co_return;
    }
    const Found found = co_await FactsOf(node, Asking::Lately);
    if (SaysAbsent(found.status)) {
        call->Fail(ESTALE);
        co_return;
    }
    if (nt::IsError(found.status)) {
        call->FailStatus(found.status);
        co_return;
    }
    struct stat attributes = StatOf(found.facts, node->id, options.owner);
    if (table.IsRemoved(node) || node->opens.IsDeleted())
        attributes.st_nlink = 0;
    call->Attributes(attributes, node->opens.Any(true) ? 0 : std::max(0.0, options.cacheSeconds - found.age));
}

// By the modes that are shown. Only whether something can be written is a question to the other side.
Detached FileSystem::Access(FuseCall::Ptr call, uint64_t nodeId, int mask)
{
    const NodePtr node = table.Find(nodeId);
    if (!node) {
        call->Fail(ESTALE);
        co_return;
    }
    Place place;
    if ((mask & W_OK) && table.PlaceOf(node, &place)) {
        if (place.share->Device().IsReadOnly()) {
            call->Fail(EROFS);
            co_return;
        }
        const Found found = node->directory ? Found{} : co_await FactsOf(node);
        if (nt::IsError(found.status)) {
            call->FailStatus(found.status);
            co_return;
        }
        if (found.facts.IsReadOnly()) {
            call->Fail(EACCES);
            co_return;
        }
    }
    call->Done();
}

Detached FileSystem::StatFs(FuseCall::Ptr call, uint64_t nodeId)
{
    const NodePtr node = table.Find(nodeId);
    const NodePtr shareRoot = node ? table.ShareRootOf(node) : nullptr;
    if (!shareRoot) {
        // The root of several shares has no space of its own.
        call->Volume({});
        co_return;
    }
    const auto [acquired, directory] = co_await AwaitDirectory(shareRoot);
    if (!directory) {
        call->FailStatus(acquired);
        co_return;
    }
    const IoResult result =
        co_await QueryVolumeOf(directory->Share(), directory->FileId(), nt::FileFsFullSizeInformation);
    VolumeFacts facts;
    if (result.Failed())
        call->FailStatus(result.status);
    else if (ReadFullSizeInformation(result.data, &facts))
        call->Volume(facts);
}

} // namespace fodr::agent
