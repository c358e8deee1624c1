#include "agent/fuse/FileSystem.h"
#include "agent/fuse/RemoteCalls.h"
#include "platform/Nt.h"

#include <cerrno>
#include <cstdio>

namespace fodr::agent {
namespace {

// A link is removed and renamed itself, not what it leads to.
constexpr RemoteShare::CreateCall kOpenToDelete = {
    .desiredAccess = nt::DELETE_ACCESS | nt::FILE_READ_ATTRIBUTES | nt::SYNCHRONIZE,
    .createDisposition = nt::FILE_OPEN,
    .createOptions = nt::FILE_OPEN_REPARSE_POINT};

RemoteShare::CreateCall OpenToDelete(bool directory)
{
    RemoteShare::CreateCall call = kOpenToDelete;
    call.createOptions |= directory ? nt::FILE_DIRECTORY_FILE : nt::FILE_NON_DIRECTORY_FILE;
    return call;
}

constexpr unsigned kNoReplace = 1; // RENAME_NOREPLACE of linux/fs.h

} // namespace

std::u16string FileSystem::HiddenPath(const NodePtr &parent)
{
    char name[64];
    snprintf(name, sizeof(name), "%s%08x-%x", kHiddenPrefix.data(), hiddenSeed, ++hiddenCounter);
    Place place;
    return table.PlaceIn(parent, name, &place) ? place.path : std::u16string();
}

// ---- Making and removing ----

Detached FileSystem::MakeDirectory(FuseCall::Ptr call, uint64_t parentId, std::string name)
{
    const NodePtr parent = table.Find(parentId);
    Place place;
    if (!LocateForChange(call, parent, name, &place))
        co_return;
    const RemoteShare::CreateCall create = {.desiredAccess = nt::FILE_READ_ATTRIBUTES | nt::SYNCHRONIZE,
                                            .createDisposition = nt::FILE_CREATE,
                                            .createOptions = nt::FILE_DIRECTORY_FILE,
                                            .fileAttributes = nt::FILE_ATTRIBUTE_NORMAL};
    parent->NoteOwnChange();
    const IoResult made = co_await CreateFile(*place.share, create, place.path);
    if (made.Failed()) {
        call->FailStatus(made.status);
        co_return;
    }
    const NodePtr node = table.Reach(parent, name, true);
    CloseLater(node, place.share, made.fileId);
    FileFacts facts;
    facts.attributes = nt::FILE_ATTRIBUTE_DIRECTORY;
    ReplyEntry(call, node, facts, false);
}

// POSIX removes a file that may not be written; NT wants the attribute cleared first.
Task<nt::NTSTATUS> FileSystem::ClearReadOnly(const Place &place)
{
    const RemoteShare::CreateCall open = {.desiredAccess = nt::FILE_WRITE_ATTRIBUTES | nt::SYNCHRONIZE,
                                          .createDisposition = nt::FILE_OPEN,
                                          .createOptions = nt::FILE_OPEN_REPARSE_POINT};
    const IoResult opened = co_await CreateFile(*place.share, open, place.path);
    if (opened.Failed())
        co_return opened.status;
    const uint32_t fileId = opened.fileId;
    const std::array<uint8_t, 36> record = BasicRecord({.attributes = nt::FILE_ATTRIBUTE_NORMAL});
    const IoResult result = co_await SetFile(*place.share, fileId, nt::FileBasicInformation, record);
    const nt::NTSTATUS status = result.status;
    co_await CloseFile(*place.share, fileId);
    co_return status;
}

// Marks what is open and closes it: with that the name is gone, unless others have it open.
Task<nt::NTSTATUS> FileSystem::DeleteOpened(const Place &place, uint32_t fileId)
{
    const IoResult marked = co_await DeleteFile(*place.share, fileId);
    const nt::NTSTATUS status = marked.status;
    const IoResult closed = co_await CloseFile(*place.share, fileId);
    co_return nt::IsError(status) ? status : closed.status;
}

Task<nt::NTSTATUS> FileSystem::DeleteAt(Place place, bool directory)
{
    const RemoteShare::CreateCall open = OpenToDelete(directory);
    nt::NTSTATUS status = nt::STATUS_SUCCESS;
    for (int attempt = 0; attempt < 2; ++attempt) {
        const IoResult opened = co_await CreateFile(*place.share, open, place.path);
        status = opened.status;
        if (!opened.Failed())
            status = co_await DeleteOpened(place, opened.fileId);
        if (status != nt::STATUS_CANNOT_DELETE || attempt != 0)
            break;
        const nt::NTSTATUS cleared = co_await ClearReadOnly(place);
        if (nt::IsError(cleared))
            break;
    }
    co_return status;
}

// NT keeps the name of a deleted file until its last handle is closed; POSIX doesn't. So the file gets a name
// that nobody is shown, and goes with its last handle, also when that is closed because the mount went away.
Task<nt::NTSTATUS> FileSystem::DeleteOpenFile(NodePtr parent, Place place)
{
    const RemoteShare::CreateCall open = OpenToDelete(false);
    const IoResult opened = co_await CreateFile(*place.share, open, place.path);
    if (opened.Failed())
        co_return opened.status;
    const uint32_t fileId = opened.fileId;
    const std::u16string hidden = HiddenPath(parent);
    const IoResult renamed = co_await RenameFile(*place.share, fileId, hidden, false);
    nt::NTSTATUS status = renamed.status;
    if (nt::IsError(status)) {
        co_await CloseFile(*place.share, fileId);
        co_return status;
    }
    status = co_await DeleteOpened(place, fileId);
    if (status == nt::STATUS_CANNOT_DELETE) {
        place.path = hidden;
        status = co_await DeleteAt(place, false);
    }
    co_return status;
}

Detached FileSystem::Unlink(FuseCall::Ptr call, uint64_t parentId, std::string name)
{
    const NodePtr parent = table.Find(parentId);
    Place place;
    if (!LocateForChange(call, parent, name, &place))
        co_return;
    parent->NoteOwnChange();
    const NodePtr node = table.Child(parent, name);
    if (node)
        co_await AwaitCall(
            [&](InlineFunction<void()> done) { node->opens.WhenNoneClosing(std::move(done)); });
    nt::NTSTATUS status;
    if (node && node->opens.IsOpen())
        status = co_await DeleteOpenFile(parent, place);
    else
        status = co_await DeleteAt(place, false);
    parent->NoteOwnChange();
    if (!nt::IsError(status))
        table.Remove(parent, name);
    call->FailStatus(status);
}

Detached FileSystem::RemoveDirectory(FuseCall::Ptr call, uint64_t parentId, std::string name)
{
    const NodePtr parent = table.Find(parentId);
    Place place;
    if (!LocateForChange(call, parent, name, &place))
        co_return;
    parent->NoteOwnChange();
    const NodePtr node = table.Child(parent, name);
    if (node) {
        co_await AwaitCall(
            [&](InlineFunction<void()> done) { directories.DropBelow(node, std::move(done)); });
        co_await AwaitCall(
            [&](InlineFunction<void()> done) { node->opens.WhenNoneClosing(std::move(done)); });
    }
    const nt::NTSTATUS status = co_await DeleteAt(place, true);
    parent->NoteOwnChange();
    if (!nt::IsError(status))
        table.Remove(parent, name);
    call->FailStatus(status);
}

// ---- Renaming ----

// The target is open through this mount: it gets out of the way, and back if the rename fails.
Task<nt::NTSTATUS> FileSystem::RenameOverOpenFile(Place source, uint32_t sourceFile, NodePtr targetParent,
                                                  Place target)
{
    const RemoteShare::CreateCall open = OpenToDelete(false);
    const IoResult opened = co_await CreateFile(*target.share, open, target.path);
    if (opened.Failed())
        co_return opened.status;
    const uint32_t fileId = opened.fileId;
    const std::u16string hidden = HiddenPath(targetParent);
    const IoResult aside = co_await RenameFile(*target.share, fileId, hidden, false);
    nt::NTSTATUS status = aside.status;
    if (!nt::IsError(status)) {
        const IoResult renamed = co_await RenameFile(*source.share, sourceFile, target.path, false);
        status = renamed.status;
        if (!nt::IsError(status)) {
            co_await DeleteOpened(target, fileId);
            co_return status;
        }
        co_await RenameFile(*target.share, fileId, target.path, false);
    }
    co_await CloseFile(*target.share, fileId);
    co_return status;
}

// A rename was refused although it may replace: POSIX replaces what NT won't.
Task<nt::NTSTATUS> FileSystem::RenameOver(Place source, uint32_t sourceFile, NodePtr targetParent,
                                          std::string targetName, Place target, nt::NTSTATUS refusal)
{
    const NodePtr node = table.Child(targetParent, targetName);
    const Found found = co_await Find(targetParent, targetName);
    if (nt::IsError(found.status))
        co_return refusal;
    if (found.facts.IsDirectory()) {
        if (node)
            co_await AwaitCall(
                [&](InlineFunction<void()> done) { directories.DropBelow(node, std::move(done)); });
        const nt::NTSTATUS deleted = co_await DeleteAt(target, true);
        if (nt::IsError(deleted))
            co_return deleted;
        const IoResult renamed = co_await RenameFile(*source.share, sourceFile, target.path, false);
        co_return renamed.status;
    }
    if (found.facts.IsReadOnly()) {
        const nt::NTSTATUS cleared = co_await ClearReadOnly(target);
        if (nt::IsError(cleared))
            co_return refusal;
        const IoResult renamed = co_await RenameFile(*source.share, sourceFile, target.path, true);
        if (!renamed.Failed())
            co_return renamed.status;
    }
    if (!node || !node->opens.IsOpen())
        co_return refusal;
    co_return co_await RenameOverOpenFile(source, sourceFile, targetParent, target);
}

Detached FileSystem::Rename(FuseCall::Ptr call, uint64_t parentId, std::string name, uint64_t newParentId,
                            std::string newName, unsigned flags)
{
    const NodePtr parent = table.Find(parentId);
    const NodePtr newParent = table.Find(newParentId);
    Place source, target;
    if (flags & ~kNoReplace) {
        call->Fail(EINVAL);
        co_return;
    }
    if (!LocateForChange(call, parent, name, &source) || !LocateForChange(call, newParent, newName, &target))
        co_return;
    if (source.share != target.share) {
        call->Fail(EXDEV);
        co_return;
    }
    parent->NoteOwnChange();
    newParent->NoteOwnChange();
    const NodePtr node = table.Child(parent, name);
    const NodePtr replaced = table.Child(newParent, newName);
    if (node && node->directory)
        co_await AwaitCall(
            [&](InlineFunction<void()> done) { directories.DropBelow(node, std::move(done)); });
    if (node)
        co_await AwaitCall(
            [&](InlineFunction<void()> done) { node->opens.WhenNoneClosing(std::move(done)); });
    if (replaced)
        co_await AwaitCall(
            [&](InlineFunction<void()> done) { replaced->opens.WhenNoneClosing(std::move(done)); });

    const bool replace = (flags & kNoReplace) == 0;
    const IoResult opened = co_await CreateFile(*source.share, kOpenToDelete, source.path);
    if (opened.Failed()) {
        call->FailStatus(opened.status);
        co_return;
    }
    const uint32_t fileId = opened.fileId;
    const IoResult renamed = co_await RenameFile(*source.share, fileId, target.path, replace);
    nt::NTSTATUS status = renamed.status;
    const bool refused = status == nt::STATUS_ACCESS_DENIED || status == nt::STATUS_SHARING_VIOLATION ||
                         status == nt::STATUS_OBJECT_NAME_COLLISION;
    if (replace && refused)
        status = co_await RenameOver(source, fileId, newParent, newName, target, status);
    // The next rename of this file waits for the close.
    if (node)
        CloseLater(node, source.share, fileId);
    else
        co_await CloseFile(*source.share, fileId);
    parent->NoteOwnChange();
    newParent->NoteOwnChange();
    if (!nt::IsError(status))
        table.Rename(parent, name, newParent, newName);
    call->FailStatus(status);
}

} // namespace fodr::agent
