#include "agent/fuse/Operations.h"
#include "agent/fuse/PosixMapping.h"
#include "lib/unicode/NameMapping.h"
#include "platform/Nt.h"

#include <array>
#include <cerrno>
#include <string_view>
#include <sys/xattr.h>

namespace fodr::agent {
namespace {

constexpr std::string_view kUser = "user.";
constexpr std::string_view kStream = "user.DosStream.";
constexpr std::string_view kData = ":$DATA";
constexpr uint32_t kLongestValue = 65536; // XATTR_SIZE_MAX of linux/limits.h

bool IsUsers(std::string_view name)
{
    return name.starts_with(kUser) && name.size() > kUser.size();
}

// Whether the attribute is a stream of a shorter name, with a zero at its end.
bool IsShort(std::string_view name)
{
    return name.starts_with(kStream) && name.ends_with(kData) &&
           name.size() > kStream.size() + kData.size() && !name.substr(kStream.size()).starts_with(kUser);
}

std::u16string StreamOf(std::string_view name)
{
    if (IsShort(name))
        name = name.substr(kStream.size(), name.size() - kStream.size() - kData.size());
    return NtNameFromPosix(name);
}

// False for a name that no attribute can have here.
bool AttributeOf(std::u16string_view stream, std::string *name)
{
    std::string text;
    if (!PosixNameFromNt(stream, text))
        return false;
    *name = text.starts_with(kUser) ? text : std::string(kStream) + text + std::string(kData);
    return true;
}

// Of a call on a stream of a file that is there.
int ErrnoOfStream(nt::NTSTATUS status)
{
    if (status == nt::STATUS_OBJECT_NAME_INVALID) // no streams there
        return EOPNOTSUPP;
    if (status == nt::STATUS_FILE_DELETED) // another file has the name
        return ESTALE;
    return SaysAbsent(status) ? ENODATA : ErrnoOfStatus(status);
}

} // namespace

// False: the call is answered. `attribute` is empty where all are meant.
Task<bool> XattrOperations::Locate(FuseCall::Ptr call, NodePtr node, std::string attribute, Use use,
                                   Place *place)
{
    const bool isOthers = !attribute.empty() && !IsUsers(attribute);
    NodePtr parent;
    std::string name;
    if (!isOthers && node && mount.table.ParentAndNameOf(node, &parent, &name))
        co_await places.Confirm(parent);
    int error = 0;
    if (isOthers)
        error = EOPNOTSUPP;
    else if (!node || !mount.table.PlaceOf(node, place))
        error = node && node == mount.table.Root() ? EOPNOTSUPP : ESTALE;
    else if (use == Use::Changes && place->share->Device().IsReadOnly())
        error = EROFS;
    if (error != 0)
        call->Fail(error);
    co_return error == 0;
}

Task<IoResult> XattrOperations::OpenStream(NodePtr node, Place place, std::string name,
                                           RemoteShare::CreateCall open)
{
    open.desiredAccess |= nt::SYNCHRONIZE;
    if (!mount.FollowsLinks(node, place))
        open.createOptions |= nt::FILE_OPEN_REPARSE_POINT;
    const std::u16string path = place.path + u':' + StreamOf(name);
    const IoResult opened = co_await place.share->Create(open, path);
    co_return IoResult{.status = opened.status, .fileId = opened.fileId, .information = opened.information};
}

// Before a change: whether the stream that was opened is of the node's file.
Task<nt::NTSTATUS> XattrOperations::CheckFile(NodePtr node, std::shared_ptr<RemoteShare> share,
                                              uint32_t fileId)
{
    const uint64_t known = mount.table.FileIdOf(node);
    if (known == 0 || !share->HasIds())
        co_return nt::STATUS_SUCCESS;
    const IoResult told = co_await share->QueryInformation(fileId, nt::FileInternalInformation);
    if (told.Failed())
        co_return told.status;
    const bool same = told.data.size() >= sizeof(known) && LoadLittle<uint64_t>(told.data.data()) == known;
    co_return same ? nt::STATUS_SUCCESS : nt::STATUS_FILE_DELETED;
}

Detached XattrOperations::Get(FuseCall::Ptr call, uint64_t nodeId, std::string name, size_t room)
{
    const NodePtr node = mount.table.Find(nodeId);
    Place place;
    if (!co_await Locate(call, node, name, Use::Reads, &place))
        co_return;
    const IoResult opened = co_await OpenStream(
        node, place, name, {.desiredAccess = nt::FILE_READ_DATA, .createDisposition = nt::FILE_OPEN});
    if (opened.Failed()) {
        call->Fail(ErrnoOfStream(opened.status));
        co_return;
    }
    const IoResult read = co_await place.share->Read(opened.fileId, 0, kLongestValue);
    const bool isEmpty = read.status == nt::STATUS_END_OF_FILE;
    std::vector<uint8_t> value;
    if (!read.Failed())
        value.assign(read.data.begin(), read.data.end());
    if (IsShort(name))
        value.push_back(0);
    if (read.Failed() && !isEmpty)
        call->Fail(ErrnoOfStream(read.status));
    else
        call->Xattr(value, room);
    mount.CloseLater(node, place.share, opened.fileId);
}

// 0: it can't be opened, and the call is answered.
Task<uint32_t> XattrOperations::OpenFileItself(FuseCall::Ptr call, NodePtr node, Place place)
{
    const RemoteShare::CreateCall open = {
        .desiredAccess = nt::FILE_READ_ATTRIBUTES | nt::SYNCHRONIZE,
        .createDisposition = nt::FILE_OPEN,
        .createOptions = mount.FollowsLinks(node, place) ? 0 : nt::FILE_OPEN_REPARSE_POINT};
    const IoResult opened = co_await place.share->Create(open, place.path);
    if (opened.Failed())
        call->FailOfFile(opened.status);
    co_return opened.Failed() ? 0 : opened.fileId;
}

Detached XattrOperations::List(FuseCall::Ptr call, uint64_t nodeId, size_t room)
{
    const NodePtr node = mount.table.Find(nodeId);
    Place place;
    if (!co_await Locate(call, node, {}, Use::Reads, &place))
        co_return;
    const uint32_t fileId = co_await OpenFileItself(call, node, place);
    if (fileId == 0)
        co_return;
    const IoResult told = co_await place.share->QueryInformation(fileId, nt::FileStreamInformation);
    std::vector<std::u16string> streams;
    std::string list;
    if (told.Failed()) {
        call->FailStatus(told.status);
    } else if (!ReadStreamNames(told.data, &streams)) {
        call->Fail(EIO);
    } else {
        for (const std::u16string &stream : streams) {
            std::string name;
            if (AttributeOf(stream, &name))
                list.append(name).push_back('\0');
        }
        call->Xattr({reinterpret_cast<const uint8_t *>(list.data()), list.size()}, room);
    }
    mount.CloseLater(node, place.share, fileId);
}

// What is there stays when the new value can't be stored.
Task<nt::NTSTATUS> XattrOperations::Store(NodePtr node, Place place, std::string name,
                                          std::vector<uint8_t> value, uint32_t disposition)
{
    const RemoteShare::CreateCall open = {.desiredAccess = nt::FILE_WRITE_DATA | nt::FILE_READ_ATTRIBUTES |
                                                           nt::DELETE_ACCESS,
                                          .createDisposition = disposition};
    const IoResult opened = co_await OpenStream(node, place, name, open);
    if (opened.Failed())
        co_return opened.status;
    const bool isNew = opened.information == nt::FILE_CREATED;
    nt::NTSTATUS status = co_await CheckFile(node, place.share, opened.fileId);
    if (!value.empty() && !nt::IsError(status)) {
        const IoResult written = co_await place.share->Write(opened.fileId, 0, value);
        status = written.status;
    }
    if (!isNew && !nt::IsError(status))
        status = co_await place.share->SetEndOfFile(opened.fileId, value.size());
    if (isNew && nt::IsError(status))
        co_await place.share->Delete(opened.fileId);
    co_await place.share->Close(opened.fileId);
    co_return status;
}

// A stream that is made would make its file as well: so the file is looked for first.
Detached XattrOperations::Set(FuseCall::Ptr call, uint64_t nodeId, std::string name,
                              std::vector<uint8_t> value, int flags)
{
    const NodePtr node = mount.table.Find(nodeId);
    Place place;
    if (!co_await Locate(call, node, name, Use::Changes, &place))
        co_return;
    if (IsShort(name) && !value.empty() && value.back() == 0)
        value.pop_back();
    const uint32_t fileId = co_await OpenFileItself(call, node, place);
    if (fileId == 0)
        co_return;
    uint32_t disposition = nt::FILE_OPEN_IF;
    if (flags & XATTR_CREATE)
        disposition = nt::FILE_CREATE;
    else if (flags & XATTR_REPLACE)
        disposition = nt::FILE_OPEN;
    node->NoteOwnChange();
    const nt::NTSTATUS status = co_await Store(node, place, name, std::move(value), disposition);
    node->NoteOwnChange();
    mount.CloseLater(node, place.share, fileId);
    call->Fail(ErrnoOfStream(status));
}

Detached XattrOperations::Remove(FuseCall::Ptr call, uint64_t nodeId, std::string name)
{
    const NodePtr node = mount.table.Find(nodeId);
    Place place;
    if (!co_await Locate(call, node, name, Use::Changes, &place))
        co_return;
    node->NoteOwnChange();
    const RemoteShare::CreateCall open = {.desiredAccess = nt::DELETE_ACCESS | nt::FILE_READ_ATTRIBUTES,
                                          .createDisposition = nt::FILE_OPEN};
    const IoResult opened = co_await OpenStream(node, place, name, open);
    nt::NTSTATUS status = opened.status;
    if (!opened.Failed()) {
        status = co_await CheckFile(node, place.share, opened.fileId);
        if (!nt::IsError(status))
            status = co_await place.share->Delete(opened.fileId);
        co_await place.share->Close(opened.fileId);
    }
    node->NoteOwnChange();
    call->Fail(ErrnoOfStream(status));
}

} // namespace fodr::agent
