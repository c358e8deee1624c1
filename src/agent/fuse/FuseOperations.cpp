#include "agent/fuse/EventActor.h"
#include "agent/fuse/FileSystem.h"
#include "agent/fuse/Fuse.h"
#include "agent/fuse/FuseSession.h"

#include <stdio.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <sys/file.h>

namespace fodr::agent {
namespace {

constexpr unsigned kTransferSize = 1 << 20; // of one read or write
constexpr unsigned kBackground = 128;       // requests that the kernel makes by itself

FileSystem &Of(fuse_req_t request)
{
    return *static_cast<FileSystem *>(fuse_req_userdata(request));
}

// From here on the call may be answered at any moment, when it was interrupted: then the kernel closes what
// it has open. So that is looked up first.
FuseCall::Ptr CallOf(fuse_req_t request)
{
    return FuseCall::Create(request, Of(request).Interrupts());
}

RemoteFilePtr FileOf(const fuse_file_info *info)
{
    return KeptHandles<RemoteFile>::Of(info->fh);
}

// For an operation whose arguments are those of the method, in their order.
template <auto Part, auto Method, class... Arguments> void Pass(fuse_req_t request, Arguments... arguments)
{
    ((Of(request).*Part).*Method)(CallOf(request), arguments...);
}

void Init(void *, fuse_conn_info *connection)
{
    const auto want = [connection](unsigned capability) {
        connection->want |= connection->capable & capability;
    };
    want(FUSE_CAP_ASYNC_READ | FUSE_CAP_ATOMIC_O_TRUNC | FUSE_CAP_PARALLEL_DIROPS | FUSE_CAP_READDIRPLUS |
         FUSE_CAP_AUTO_INVAL_DATA | FUSE_CAP_ASYNC_DIO | FUSE_CAP_EXPIRE_ONLY | FUSE_CAP_POSIX_LOCKS |
         FUSE_CAP_FLOCK_LOCKS);
    // Attributes come with every listing at no cost; guessing who wants them would cost a request a file.
    connection->want &= ~static_cast<unsigned>(FUSE_CAP_READDIRPLUS_AUTO);
    connection->max_readahead = kTransferSize;
    connection->max_write = kTransferSize;
    connection->max_background = kBackground;
    connection->congestion_threshold = kBackground * 3 / 4;
}

void Forget(fuse_req_t request, fuse_ino_t node, uint64_t lookups)
{
    Of(request).Forget(node, lookups);
    fuse_reply_none(request);
}

void ForgetMulti(fuse_req_t request, size_t count, fuse_forget_data *forgets)
{
    for (size_t i = 0; i < count; ++i)
        Of(request).Forget(forgets[i].ino, forgets[i].nlookup);
    fuse_reply_none(request);
}

void GetAttr(fuse_req_t request, fuse_ino_t node, fuse_file_info *)
{
    Of(request).attributes.GetAttributes(CallOf(request), node);
}

void SetAttr(fuse_req_t request, fuse_ino_t node, struct stat *attributes, int toSet, fuse_file_info *info)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    AttributeChange change;
    change.setSize = (toSet & FUSE_SET_ATTR_SIZE) != 0;
    change.size = static_cast<uint64_t>(attributes->st_size);
    change.setMode = (toSet & FUSE_SET_ATTR_MODE) != 0;
    change.mode = attributes->st_mode;
    change.setUser = (toSet & FUSE_SET_ATTR_UID) != 0;
    change.setGroup = (toSet & FUSE_SET_ATTR_GID) != 0;
    change.owner = {attributes->st_uid, attributes->st_gid};
    change.setAccessTime = (toSet & (FUSE_SET_ATTR_ATIME | FUSE_SET_ATTR_ATIME_NOW)) != 0;
    change.accessTime = toSet & FUSE_SET_ATTR_ATIME_NOW ? now : attributes->st_atim;
    change.setWriteTime = (toSet & (FUSE_SET_ATTR_MTIME | FUSE_SET_ATTR_MTIME_NOW)) != 0;
    change.writeTime = toSet & FUSE_SET_ATTR_MTIME_NOW ? now : attributes->st_mtim;
    RemoteFilePtr file = info ? FileOf(info) : nullptr;
    Of(request).attributes.SetAttributes(CallOf(request), node, change, std::move(file));
}

void Open(fuse_req_t request, fuse_ino_t node, fuse_file_info *info)
{
    Of(request).files.Open(CallOf(request), node, info->flags);
}

void Create(fuse_req_t request, fuse_ino_t parent, const char *name, mode_t mode, fuse_file_info *info)
{
    Of(request).files.Create(CallOf(request), parent, name, mode, info->flags);
}

// What locks kept whole may have changed since they were lost.
bool RefusedForLock(fuse_req_t request, const RemoteFilePtr &file)
{
    return Of(request).locks.AreLost(file) && fuse_reply_err(request, EIO) <= 0;
}

void Read(fuse_req_t request, fuse_ino_t, size_t size, off_t offset, fuse_file_info *info)
{
    const RemoteFilePtr file = FileOf(info);
    if (!RefusedForLock(request, file))
        Of(request).files.Read(CallOf(request), file, static_cast<uint64_t>(offset),
                               static_cast<uint32_t>(size));
}

void Write(fuse_req_t request, fuse_ino_t, const char *bytes, size_t size, off_t offset, fuse_file_info *info)
{
    const RemoteFilePtr file = FileOf(info);
    if (!RefusedForLock(request, file))
        Of(request).files.Write(CallOf(request), file, static_cast<uint64_t>(offset),
                                {reinterpret_cast<const uint8_t *>(bytes), size}, info->flags);
}

void Flush(fuse_req_t request, fuse_ino_t, fuse_file_info *info)
{
    FileSystem &files = Of(request);
    RemoteFilePtr file = FileOf(info);
    files.locks.Closed(
        std::move(file), info->lock_owner,
        [&files, call = CallOf(request)](const RemoteFilePtr &closed) { files.files.Flush(call, closed); });
}

void FSync(fuse_req_t request, fuse_ino_t, int, fuse_file_info *info)
{
    const RemoteFilePtr file = FileOf(info);
    Of(request).files.Flush(CallOf(request), file);
}

void Release(fuse_req_t request, fuse_ino_t, fuse_file_info *info)
{
    Of(request).locks.Released(FileOf(info));
    Of(request).files.Release(CallOf(request), info->fh);
}

LockWish WishOf(const fuse_file_info *info, const struct flock &range)
{
    LockWish wish = {.owner = info->lock_owner, .process = range.l_pid};
    wish.begin = static_cast<uint64_t>(range.l_start);
    const uint64_t rest = nt::FODR_LOCKS_SPAN - std::min(wish.begin, nt::FODR_LOCKS_SPAN);
    wish.end = wish.begin + (range.l_len == 0 ? rest : std::min(static_cast<uint64_t>(range.l_len), rest));
    if (range.l_type != F_UNLCK)
        wish.exclusive = range.l_type == F_WRLCK;
    return wish;
}

void GetLk(fuse_req_t request, fuse_ino_t, fuse_file_info *info, struct flock *range)
{
    const LockWish wish = WishOf(info, *range);
    RemoteFilePtr file = FileOf(info);
    if (wish.begin >= wish.end)
        fuse_reply_err(request, EOVERFLOW);
    else
        Of(request).locks.GetLock(CallOf(request), std::move(file), wish);
}

void SetLk(fuse_req_t request, fuse_ino_t, fuse_file_info *info, struct flock *range, int sleep)
{
    const LockWish wish = WishOf(info, *range);
    RemoteFilePtr file = FileOf(info);
    if (wish.begin >= wish.end)
        fuse_reply_err(request, EOVERFLOW);
    else
        Of(request).locks.SetLock(CallOf(request), std::move(file), wish, sleep != 0);
}

void Flock(fuse_req_t request, fuse_ino_t, fuse_file_info *info, int operation)
{
    LockWish wish = {.owner = info->lock_owner, .whole = true};
    if ((operation & LOCK_UN) == 0)
        wish.exclusive = (operation & LOCK_EX) != 0;
    RemoteFilePtr file = FileOf(info);
    Of(request).locks.SetLock(CallOf(request), std::move(file), wish, (operation & LOCK_NB) == 0);
}

void FAllocate(fuse_req_t request, fuse_ino_t, int mode, off_t offset, off_t length, fuse_file_info *info)
{
    RemoteFilePtr file = FileOf(info);
    Of(request).ranges.Allocate(CallOf(request), std::move(file), mode, static_cast<uint64_t>(offset),
                                static_cast<uint64_t>(length));
}

void Rename(fuse_req_t request, fuse_ino_t parent, const char *name, fuse_ino_t newParent,
            const char *newName, unsigned flags)
{
    if (flags == RENAME_EXCHANGE)
        Of(request).links.Exchange(CallOf(request), parent, name, newParent, newName);
    else
        Of(request).names.Rename(CallOf(request), parent, name, newParent, newName, flags);
}

void MkNod(fuse_req_t request, fuse_ino_t parent, const char *name, mode_t mode, dev_t)
{
    Of(request).names.MakeNode(CallOf(request), parent, name, mode);
}
void SymLink(fuse_req_t request, const char *target, fuse_ino_t parent, const char *name)
{
    Of(request).names.MakeLink(CallOf(request), parent, name, target);
}
void LSeek(fuse_req_t request, fuse_ino_t, off_t offset, int whence, fuse_file_info *info)
{
    RemoteFilePtr file = FileOf(info);
    Of(request).ranges.Seek(CallOf(request), std::move(file), static_cast<uint64_t>(offset), whence);
}
void CopyFileRange(fuse_req_t request, fuse_ino_t, off_t from, fuse_file_info *source, fuse_ino_t, off_t to,
                   fuse_file_info *target, size_t length, int)
{
    RemoteFilePtr reader = FileOf(source), writer = FileOf(target);
    Of(request).ranges.Copy(CallOf(request), std::move(reader), from, std::move(writer), to, length);
}

void SetXattr(fuse_req_t request, fuse_ino_t node, const char *name, const char *value, size_t size,
              int flags)
{
    Of(request).xattrs.Set(
        CallOf(request), node, name,
        {reinterpret_cast<const uint8_t *>(value), reinterpret_cast<const uint8_t *>(value) + size}, flags);
}
void OpenDir(fuse_req_t request, fuse_ino_t node, fuse_file_info *)
{
    Of(request).directories.OpenDirectory(CallOf(request), node);
}

void ReadDir(fuse_req_t request, fuse_ino_t, size_t size, off_t offset, fuse_file_info *info)
{
    OpenListingPtr open = KeptHandles<OpenListing>::Of(info->fh);
    Of(request).directories.ReadDirectory(CallOf(request), std::move(open), size,
                                          static_cast<uint64_t>(offset), false);
}

void ReadDirPlus(fuse_req_t request, fuse_ino_t, size_t size, off_t offset, fuse_file_info *info)
{
    OpenListingPtr open = KeptHandles<OpenListing>::Of(info->fh);
    Of(request).directories.ReadDirectory(CallOf(request), std::move(open), size,
                                          static_cast<uint64_t>(offset), true);
}

void ReleaseDir(fuse_req_t request, fuse_ino_t, fuse_file_info *info)
{
    Of(request).directories.ReleaseDirectory(CallOf(request), info->fh);
}

// Names are with the other side as soon as they are answered for.
void FSyncDir(fuse_req_t request, fuse_ino_t, int, fuse_file_info *)
{
    fuse_reply_err(request, 0);
}

} // namespace

const fuse_lowlevel_ops &FuseOperations()
{
    static const fuse_lowlevel_ops operations = [] {
        fuse_lowlevel_ops made = {};
        made.init = Init;
        made.lookup = Pass<&FileSystem::names, &NameOperations::Lookup>;
        made.forget = Forget;
        made.forget_multi = ForgetMulti;
        made.getattr = GetAttr;
        made.setattr = SetAttr;
        made.readlink = Pass<&FileSystem::attributes, &AttributeOperations::ReadLink>;
        made.access = Pass<&FileSystem::attributes, &AttributeOperations::Access>;
        made.statfs = Pass<&FileSystem::attributes, &AttributeOperations::StatFs>;
        made.open = Open;
        made.create = Create;
        made.read = Read;
        made.write = Write;
        made.flush = Flush;
        made.fsync = FSync;
        made.getlk = GetLk;
        made.setlk = SetLk;
        made.flock = Flock;
        made.release = Release;
        made.fallocate = FAllocate;
        made.mkdir = Pass<&FileSystem::names, &NameOperations::MakeDirectory>;
        made.rmdir = Pass<&FileSystem::names, &NameOperations::RemoveDirectory>;
        made.unlink = Pass<&FileSystem::names, &NameOperations::Unlink>;
        made.rename = Rename;
        made.mknod = MkNod;
        made.symlink = SymLink;
        made.link = Pass<&FileSystem::links, &LinkOperations::Link>;
        made.lseek = LSeek;
        made.setxattr = SetXattr;
        made.getxattr = Pass<&FileSystem::xattrs, &XattrOperations::Get>;
        made.listxattr = Pass<&FileSystem::xattrs, &XattrOperations::List>;
        made.removexattr = Pass<&FileSystem::xattrs, &XattrOperations::Remove>;
        made.copy_file_range = CopyFileRange;
        made.opendir = OpenDir;
        made.readdir = ReadDir;
        made.readdirplus = ReadDirPlus;
        made.releasedir = ReleaseDir;
        made.fsyncdir = FSyncDir;
        RouteActedRequests(&made);
        return made;
    }();
    return operations;
}

} // namespace fodr::agent
