#include "agent/fuse/FuseCall.h"

#include "agent/fuse/Fuse.h"
#include "agent/fuse/PosixMapping.h"
#include "platform/NtRecords.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace fodr::agent {
namespace {

void OnFuseInterrupt(fuse_req_t, void *data)
{
    auto *binding = static_cast<std::pair<FuseCall *, InterruptWatch *> *>(data);
    // The library holds a lock that the end of the call needs: no reference is taken here.
    binding->second->OnInterrupt(binding->first->weak_from_this());
}

thread_local std::shared_ptr<void> keptWithNext;

fuse_entry_param EntryParam(const EntryAnswer &entry)
{
    fuse_entry_param param = {};
    param.ino = entry.node;
    param.attr = entry.attributes;
    param.entry_timeout = entry.nameSeconds;
    param.attr_timeout = entry.attributeSeconds;
    return param;
}

} // namespace

FuseCall::Ptr FuseCall::Create(fuse_req *request, InterruptWatch &interruptWatch)
{
    struct Bound : FuseCall {
        explicit Bound(fuse_req *fuseRequest) : FuseCall(fuseRequest) {}
        std::pair<FuseCall *, InterruptWatch *> binding;
    };
    auto bound = std::make_shared<Bound>(request);
    bound->binding = {bound.get(), &interruptWatch};
    fuse_req_interrupt_func(request, OnFuseInterrupt, &bound->binding);
    return bound;
}

FuseCall::FuseCall(fuse_req *fuseRequest)
    : request(fuseRequest), callerId(fuse_req_ctx(fuseRequest)->pid), kept(std::move(keptWithNext))
{}

void FuseCall::KeepWithNext(std::shared_ptr<void> thing)
{
    keptWithNext = std::move(thing);
}

FuseCall::~FuseCall()
{
    Fail(EIO);
}

// After this no interrupt looks at the call any more.
bool FuseCall::Take()
{
    if (answered.exchange(true))
        return false;
    fuse_req_interrupt_func(request, nullptr, nullptr);
    return true;
}

bool FuseCall::Fail(int error)
{
    return Take() && fuse_reply_err(request, error) == 0;
}

bool FuseCall::FailStatus(nt::NTSTATUS status)
{
    return Fail(ErrnoOfStatus(status));
}

bool FuseCall::FailOfFile(nt::NTSTATUS status)
{
    return SaysAbsent(status) ? Fail(ESTALE) : FailStatus(status);
}

bool FuseCall::FailInFolder(nt::NTSTATUS status)
{
    return status == nt::STATUS_OBJECT_PATH_NOT_FOUND ? Fail(ESTALE) : FailStatus(status);
}

bool FuseCall::Done()
{
    return Fail(0);
}

bool FuseCall::Entry(const EntryAnswer &entry)
{
    const fuse_entry_param param = EntryParam(entry);
    return Take() && fuse_reply_entry(request, &param) == 0;
}

bool FuseCall::Attributes(const struct stat &attributes, double seconds)
{
    return Take() && fuse_reply_attr(request, &attributes, seconds) == 0;
}

bool FuseCall::Opened(uint64_t handle, Caching caching)
{
    fuse_file_info info = {};
    info.fh = handle;
    info.direct_io = caching == Caching::Direct;
    return Take() && fuse_reply_open(request, &info) == 0;
}

bool FuseCall::Link(const std::string &target)
{
    return Take() && fuse_reply_readlink(request, target.c_str()) == 0;
}

bool FuseCall::Created(const EntryAnswer &entry, uint64_t handle, Caching caching)
{
    const fuse_entry_param param = EntryParam(entry);
    fuse_file_info info = {};
    info.fh = handle;
    info.direct_io = caching == Caching::Direct;
    return Take() && fuse_reply_create(request, &param, &info) == 0;
}

bool FuseCall::Written(size_t count)
{
    return Take() && fuse_reply_write(request, count) == 0;
}

bool FuseCall::Position(uint64_t offset)
{
    return Take() && fuse_reply_lseek(request, static_cast<off_t>(offset)) == 0;
}

bool FuseCall::Xattr(ByteSpan value, size_t room)
{
    if (room == 0)
        return Take() && fuse_reply_xattr(request, value.size()) == 0;
    return value.size() > room ? Fail(ERANGE) : Bytes(value);
}

bool FuseCall::Bytes(ByteSpan bytes)
{
    return Take() && fuse_reply_buf(request, reinterpret_cast<const char *>(bytes.data()), bytes.size()) == 0;
}

bool FuseCall::Parts(std::span<const ByteSpan> parts)
{
    if (parts.size() <= 1)
        return Bytes(parts.empty() ? ByteSpan{} : parts[0]);
    std::vector<iovec> vectors;
    for (const ByteSpan part : parts)
        vectors.push_back({const_cast<uint8_t *>(part.data()), part.size()});
    return Take() && fuse_reply_iov(request, vectors.data(), static_cast<int>(vectors.size())) == 0;
}

bool FuseCall::Volume(const VolumeFacts &facts)
{
    struct statvfs volume = {};
    volume.f_bsize = volume.f_frsize = facts.bytesPerUnit ? facts.bytesPerUnit : 4096;
    volume.f_blocks = facts.totalUnits;
    volume.f_bfree = facts.freeUnits;
    volume.f_bavail = facts.callerFreeUnits;
    volume.f_namemax = 255;
    return Take() && fuse_reply_statfs(request, &volume) == 0;
}

bool FuseCall::Lock(const std::optional<LockedRange> &found, int process)
{
    struct flock range = {};
    range.l_type = F_UNLCK;
    if (found) {
        range.l_type = found->exclusive ? F_WRLCK : F_RDLCK;
        range.l_start = static_cast<off_t>(found->begin);
        range.l_len = found->end >= nt::FODR_LOCKS_SPAN ? 0 : static_cast<off_t>(found->end - found->begin);
        range.l_pid = process;
    }
    return Take() && fuse_reply_lock(request, &range) == 0;
}

void FuseCall::SetInterrupt(Interrupt function)
{
    interrupt = std::move(function);
    tellsInterrupt = true;
}

bool FuseCall::TellInterrupt()
{
    if (!tellsInterrupt)
        return false;
    interrupt(*this);
    return true;
}

// A fatal signal leaves SIGKILL pending for every thread of a process. The kernel tells of an interrupt
// without telling which it is.
bool FuseCall::CallerIsDying() const
{
    char path[32];
    snprintf(path, sizeof(path), "/proc/%d/status", callerId);
    FILE *status = fopen(path, "re");
    if (!status)
        return true; // gone already
    bool dying = false;
    for (char line[256]; fgets(line, sizeof(line), status);) {
        if (strncmp(line, "SigPnd:", 7) == 0 || strncmp(line, "ShdPnd:", 7) == 0)
            dying = dying || (strtoull(line + 7, nullptr, 16) & (1ull << (9 - 1))) != 0;
    }
    fclose(status);
    return dying;
}

namespace {

constexpr auto kLongWait = std::chrono::seconds(1);
constexpr auto kLookAgain = std::chrono::milliseconds(200); // at callers, of whose death nothing tells

} // namespace

InterruptWatch::InterruptWatch() : thread([this] { ThreadMain(); }) {}

InterruptWatch::~InterruptWatch()
{
    {
        const MutexLock held(lock);
        stopping = true;
        wakeup.notify_all();
    }
    thread.join();
}

void InterruptWatch::OnInterrupt(std::weak_ptr<FuseCall> call)
{
    const MutexLock held(lock);
    interrupted.push_back(std::move(call));
    wakeup.notify_all();
}

void InterruptWatch::ThreadMain()
{
    std::vector<std::weak_ptr<FuseCall>> watched;
    for (;;) {
        {
            const MutexLock held(lock);
            while (!stopping && interrupted.empty() && watched.empty())
                wakeup.wait(lock);
            if (!stopping && interrupted.empty())
                wakeup.wait_for(lock, kLookAgain);
            if (stopping)
                return;
            watched.insert(watched.end(), interrupted.begin(), interrupted.end());
            interrupted.clear();
        }
        std::erase_if(watched, [](const std::weak_ptr<FuseCall> &weak) {
            const FuseCall::Ptr call = weak.lock();
            if (!call || call->IsAnswered())
                return true;
            if (call->TellInterrupt())
                return false;
            const bool waitedLong = std::chrono::steady_clock::now() - call->Begun() > kLongWait;
            return (waitedLong || call->CallerIsDying()) && (call->Fail(EINTR), true);
        });
    }
}

} // namespace fodr::agent
