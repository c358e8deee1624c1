#include "agent/fuse/Operations.h"
#include "agent/fuse/PosixMapping.h"
#include "agent/fuse/RemoteCalls.h"
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
    return SaysAbsent(status) ? ENODATA : ErrnoOfStatus(status);
}

} // namespace

Task<bool> XattrOperations::Locate(FuseCall::Ptr call, NodePtr node, Use use, Place *place)
{
    NodePtr parent;
    std::string name;
    if (node && mount.table.ParentAndNameOf(node, &parent, &name))
        co_await places.Confirm(parent);
    int error = 0;
    if (!node || !mount.table.PlaceOf(node, place))
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
    const IoResult opened = co_await CreateFile(*place.share, open, path);
    co_return IoResult{.status = opened.status, .fileId = opened.fileId, .information = opened.information};
}

Detached XattrOperations::Get(FuseCall::Ptr call, uint64_t nodeId, std::string name, size_t room)
{
    const NodePtr node = mount.table.Find(nodeId);
    Place place;
    if (!IsUsers(name)) {
        call->Fail(EOPNOTSUPP);
        co_return;
    }
    if (!co_await Locate(call, node, Use::Reads, &place))
        co_return;
    const IoResult opened = co_await OpenStream(
        node, place, name, {.desiredAccess = nt::FILE_READ_DATA, .createDisposition = nt::FILE_OPEN});
    if (opened.Failed()) {
        call->Fail(ErrnoOfStream(opened.status));
        co_return;
    }
    const IoResult read = co_await AwaitIo(
        [&](IoHandler done) { place.share->Read(opened.fileId, 0, kLongestValue, std::move(done)); });
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

Detached XattrOperations::List(FuseCall::Ptr call, uint64_t nodeId, size_t room)
{
    const NodePtr node = mount.table.Find(nodeId);
    Place place;
    if (!co_await Locate(call, node, Use::Reads, &place))
        co_return;
    const RemoteShare::CreateCall open = {
        .desiredAccess = nt::FILE_READ_ATTRIBUTES | nt::SYNCHRONIZE,
        .createDisposition = nt::FILE_OPEN,
        .createOptions = mount.FollowsLinks(node, place) ? 0 : nt::FILE_OPEN_REPARSE_POINT};
    uint32_t fileId = 0;
    {
        const IoResult opened = co_await CreateFile(*place.share, open, place.path);
        if (opened.Failed()) {
            call->FailOfFile(opened.status);
            co_return;
        }
        fileId = opened.fileId;
    }
    const IoResult told = co_await QueryFile(*place.share, fileId, nt::FileStreamInformation);
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
    const RemoteShare::CreateCall open = {.desiredAccess = nt::FILE_WRITE_DATA | nt::DELETE_ACCESS,
                                          .createDisposition = disposition};
    const IoResult opened = co_await OpenStream(node, place, name, open);
    if (opened.Failed())
        co_return opened.status;
    const bool isNew = opened.information == nt::FILE_CREATED;
    nt::NTSTATUS status = nt::STATUS_SUCCESS;
    if (!value.empty()) {
        const IoResult written = co_await AwaitIo(
            [&](IoHandler done) { place.share->Write(opened.fileId, 0, value, std::move(done)); });
        status = written.status;
    }
    if (!isNew && !nt::IsError(status)) {
        std::array<uint8_t, 8> size;
        StoreLittle<uint64_t>(size.data(), value.size());
        const IoResult cut =
            co_await SetFile(*place.share, opened.fileId, nt::FileEndOfFileInformation, size);
        status = cut.status;
    }
    if (isNew && nt::IsError(status))
        co_await DeleteFile(*place.share, opened.fileId);
    co_await CloseFile(*place.share, opened.fileId);
    co_return status;
}

// A stream that is made would make its file as well: so the file is looked for first.
Detached XattrOperations::Set(FuseCall::Ptr call, uint64_t nodeId, std::string name,
                              std::vector<uint8_t> value, int flags)
{
    const NodePtr node = mount.table.Find(nodeId);
    Place place;
    if (!IsUsers(name)) {
        call->Fail(EOPNOTSUPP);
        co_return;
    }
    if (!co_await Locate(call, node, Use::Changes, &place))
        co_return;
    if (IsShort(name) && !value.empty() && value.back() == 0)
        value.pop_back();
    const RemoteShare::CreateCall look = {.desiredAccess = nt::FILE_READ_ATTRIBUTES | nt::SYNCHRONIZE,
                                          .createDisposition = nt::FILE_OPEN,
                                          .createOptions = nt::FILE_OPEN_REPARSE_POINT};
    uint32_t fileId = 0;
    {
        const IoResult present = co_await CreateFile(*place.share, look, place.path);
        if (present.Failed()) {
            call->FailOfFile(present.status);
            co_return;
        }
        fileId = present.fileId;
    }
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
    if (!IsUsers(name)) {
        call->Fail(EOPNOTSUPP);
        co_return;
    }
    if (!co_await Locate(call, node, Use::Changes, &place))
        co_return;
    node->NoteOwnChange();
    const IoResult opened = co_await OpenStream(node, place, name,
                                                {.desiredAccess = nt::DELETE_ACCESS,
                                                 .createDisposition = nt::FILE_OPEN,
                                                 .createOptions = nt::FILE_DELETE_ON_CLOSE});
    nt::NTSTATUS status = opened.status;
    if (!opened.Failed()) {
        const IoResult closed = co_await CloseFile(*place.share, opened.fileId);
        status = closed.status;
    }
    node->NoteOwnChange();
    call->Fail(ErrnoOfStream(status));
}

} // namespace fodr::agent
