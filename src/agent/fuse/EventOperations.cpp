#include "agent/fuse/EventActor.h"
#include "agent/fuse/FileSystem.h"
#include "agent/fuse/Fuse.h"

#include <cerrno>

namespace fodr::agent {
namespace {

using Operations = fuse_lowlevel_ops;

// Those that others are served by.
Operations served;

FileSystem &Of(fuse_req_t request)
{
    return *static_cast<FileSystem *>(fuse_req_userdata(request));
}

EventActor *ActorOf(fuse_req_t request)
{
    EventActor &actor = Of(request).events.Actor();
    return actor.IsActing(request) ? &actor : nullptr;
}

// The next FuseCall of this thread keeps it until its end.
class OwnChange {
public:
    explicit OwnChange(std::shared_ptr<void> mark) { FuseCall::KeepWithNext(std::move(mark)); }
    ~OwnChange() { FuseCall::KeepWithNext(nullptr); }
    OwnChange(const OwnChange &) = delete;
    OwnChange &operator=(const OwnChange &) = delete;
};

std::shared_ptr<void> MarkOf(fuse_req_t request, fuse_ino_t parent, const char *name)
{
    return Of(request).events.BeginOwn(parent, name);
}

void Lookup(fuse_req_t request, fuse_ino_t parent, const char *name)
{
    if (EventActor *actor = ActorOf(request))
        return actor->Lookup(request, parent, name);
    served.lookup(request, parent, name);
}

void GetAttr(fuse_req_t request, fuse_ino_t node, fuse_file_info *info)
{
    if (EventActor *actor = ActorOf(request))
        return actor->GetAttr(request, node);
    Of(request).events.OnUsed(node);
    served.getattr(request, node, info);
}

void SetAttr(fuse_req_t request, fuse_ino_t node, struct stat *attributes, int toSet, fuse_file_info *info)
{
    if (EventActor *actor = ActorOf(request))
        return actor->SetAttr(request, node);
    served.setattr(request, node, attributes, toSet, info);
}

void Access(fuse_req_t request, fuse_ino_t node, int mask)
{
    if (ActorOf(request)) {
        fuse_reply_err(request, 0);
        return;
    }
    served.access(request, node, mask);
}

void Open(fuse_req_t request, fuse_ino_t node, fuse_file_info *info)
{
    if (EventActor *actor = ActorOf(request))
        return actor->Open(request);
    served.open(request, node, info);
}

void Create(fuse_req_t request, fuse_ino_t parent, const char *name, mode_t mode, fuse_file_info *info)
{
    if (EventActor *actor = ActorOf(request))
        return actor->Create(request, parent, name);
    const OwnChange own(MarkOf(request, parent, name));
    served.create(request, parent, name, mode, info);
}

// The kernel sends this without saying who closed the file.
void Release(fuse_req_t request, fuse_ino_t node, fuse_file_info *info)
{
    if (info->fh == EventActor::kHandle) {
        fuse_reply_err(request, 0);
        return;
    }
    served.release(request, node, info);
}

void Flush(fuse_req_t request, fuse_ino_t node, fuse_file_info *info)
{
    if (info->fh == EventActor::kHandle) {
        fuse_reply_err(request, 0);
        return;
    }
    served.flush(request, node, info);
}

void FAllocate(fuse_req_t request, fuse_ino_t node, int mode, off_t offset, off_t length,
               fuse_file_info *info)
{
    if (info->fh == EventActor::kHandle) {
        fuse_reply_err(request, 0);
        return;
    }
    served.fallocate(request, node, mode, offset, length, info);
}

void MkDir(fuse_req_t request, fuse_ino_t parent, const char *name, mode_t mode)
{
    if (EventActor *actor = ActorOf(request))
        return actor->Make(request, parent, name);
    const OwnChange own(MarkOf(request, parent, name));
    served.mkdir(request, parent, name, mode);
}

void MkNod(fuse_req_t request, fuse_ino_t parent, const char *name, mode_t mode, dev_t device)
{
    if (EventActor *actor = ActorOf(request))
        return actor->Make(request, parent, name);
    const OwnChange own(MarkOf(request, parent, name));
    served.mknod(request, parent, name, mode, device);
}

void SymLink(fuse_req_t request, const char *target, fuse_ino_t parent, const char *name)
{
    if (EventActor *actor = ActorOf(request))
        return actor->Make(request, parent, name);
    const OwnChange own(MarkOf(request, parent, name));
    served.symlink(request, target, parent, name);
}

void Link(fuse_req_t request, fuse_ino_t node, fuse_ino_t parent, const char *name)
{
    const OwnChange own(MarkOf(request, parent, name));
    served.link(request, node, parent, name);
}

void Unlink(fuse_req_t request, fuse_ino_t parent, const char *name)
{
    if (EventActor *actor = ActorOf(request))
        return actor->Remove(request, parent, name);
    const OwnChange own(MarkOf(request, parent, name));
    served.unlink(request, parent, name);
}

void RmDir(fuse_req_t request, fuse_ino_t parent, const char *name)
{
    if (EventActor *actor = ActorOf(request))
        return actor->Remove(request, parent, name);
    const OwnChange own(MarkOf(request, parent, name));
    served.rmdir(request, parent, name);
}

void Rename(fuse_req_t request, fuse_ino_t parent, const char *name, fuse_ino_t newParent,
            const char *newName, unsigned flags)
{
    if (EventActor *actor = ActorOf(request))
        return actor->Rename(request, parent, name, newParent, newName);
    using Marks = std::pair<std::shared_ptr<void>, std::shared_ptr<void>>;
    const OwnChange own(
        std::make_shared<Marks>(MarkOf(request, parent, name), MarkOf(request, newParent, newName)));
    served.rename(request, parent, name, newParent, newName, flags);
}

void OpenDir(fuse_req_t request, fuse_ino_t node, fuse_file_info *info)
{
    Of(request).events.OnUsed(node);
    served.opendir(request, node, info);
}

// The kernel looks whether a file has rights that a change would take from it.
void GetXAttr(fuse_req_t request, fuse_ino_t node, const char *name, size_t size)
{
    if (ActorOf(request)) {
        fuse_reply_err(request, ENODATA);
        return;
    }
    served.getxattr(request, node, name, size);
}

} // namespace

void RouteActedRequests(fuse_lowlevel_ops *operations)
{
    served = *operations;
    operations->lookup = Lookup;
    operations->getattr = GetAttr;
    operations->setattr = SetAttr;
    operations->access = Access;
    operations->open = Open;
    operations->create = Create;
    operations->release = Release;
    operations->flush = Flush;
    operations->fallocate = FAllocate;
    operations->mkdir = MkDir;
    operations->mknod = MkNod;
    operations->symlink = SymLink;
    operations->link = Link;
    operations->unlink = Unlink;
    operations->rmdir = RmDir;
    operations->rename = Rename;
    operations->opendir = OpenDir;
    if (operations->getxattr)
        operations->getxattr = GetXAttr;
}

} // namespace fodr::agent
