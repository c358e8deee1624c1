// One request of the kernel, answered exactly once, from whichever thread.
#pragma once

#include "agent/FileFacts.h"
#include "agent/InlineFunction.h"
#include "lib/misc/LockRanges.h"
#include "lib/misc/Mutex.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <sys/stat.h>
#include <sys/uio.h>
#include <thread>
#include <vector>

struct fuse_req;

namespace fodr::agent {

class InterruptWatch;

// What an answer says of a name, and for how long the kernel may believe it.
struct EntryAnswer {
    uint64_t node = 0; // 0: there is no such name
    struct stat attributes = {};
    double nameSeconds = 0;
    double attributeSeconds = 0;
};

class FuseCall : public std::enable_shared_from_this<FuseCall> {
public:
    using Ptr = std::shared_ptr<FuseCall>;
    // `interruptWatch` outlives the call.
    static Ptr Create(fuse_req *request, InterruptWatch &interruptWatch);
    explicit FuseCall(fuse_req *fuseRequest);
    // The next call that this thread makes lets it go at its end.
    static void KeepWithNext(std::shared_ptr<void> thing);
    ~FuseCall(); // EIO when nothing was answered
    FuseCall(const FuseCall &) = delete;
    FuseCall &operator=(const FuseCall &) = delete;

    // Each is false when the kernel didn't take the answer: the request had been answered, or its caller is
    // gone. What the answer handed out has to be taken back then.
    bool Fail(int error);
    bool FailStatus(nt::NTSTATUS status); // Done for a success
    // The same; but where the status says that the file is absent, or the folder that it was to be in,
    // another may have the name by now: the kernel is to look it up again.
    bool FailOfFile(nt::NTSTATUS status);
    bool FailInFolder(nt::NTSTATUS status);
    bool Done();
    bool Entry(const EntryAnswer &entry);
    bool Attributes(const struct stat &attributes, double seconds);
    // `Direct`: the kernel keeps none of the bytes that go through this open.
    enum class Caching { Allowed, Direct };
    bool Opened(uint64_t handle, Caching caching = Caching::Allowed);
    bool Created(const EntryAnswer &entry, uint64_t handle, Caching caching = Caching::Allowed);
    bool Link(const std::string &target);
    bool Written(size_t count);
    bool Position(uint64_t offset);
    // An extended attribute, or the list of them: the size alone for a caller with no room, ERANGE for one
    // with too little.
    bool Xattr(ByteSpan value, size_t room);
    bool Bytes(ByteSpan bytes);
    bool Parts(std::span<const ByteSpan> parts);
    bool Volume(const VolumeFacts &facts);
    // The lock that is in the way, or that there is none.
    bool Lock(const std::optional<LockedRange> &found, int process);

    // For a call that may wait for ever: called, perhaps more than once, when the caller wants it to end.
    // Without it the call is answered for it (InterruptWatch). Once.
    using Interrupt = std::function<void(FuseCall &)>;
    void SetInterrupt(Interrupt function);
    bool TellInterrupt(); // false: there is no such function

    int Caller() const { return callerId; } // the thread that makes the call
    // Whether the calling thread is about to die and only waits for this.
    bool CallerIsDying() const;
    std::chrono::steady_clock::time_point Begun() const { return begun; }
    bool IsAnswered() const { return answered; }
    fuse_req *Request() const { return request; }

private:
    bool Take();

    fuse_req *const request; // freed by the answer
    const int callerId;
    const std::chrono::steady_clock::time_point begun = std::chrono::steady_clock::now();
    std::atomic<bool> answered{false};
    const std::shared_ptr<void> kept;
    Interrupt interrupt;
    std::atomic<bool> tellsInterrupt{false}; // from then on it stays as it is
};

// Ends interrupted requests that still wait: at once when their caller is dying, else when they have waited
// for long. Programs whose signals merely come in between don't see EINTR from calls that never give it.
class InterruptWatch {
public:
    InterruptWatch();
    ~InterruptWatch();

    void OnInterrupt(std::weak_ptr<FuseCall> call);

private:
    void ThreadMain();

    Mutex lock;
    Condition wakeup;
    std::vector<std::weak_ptr<FuseCall>> interrupted GUARDED_BY(lock);
    bool stopping GUARDED_BY(lock) = false;
    std::thread thread;
};

} // namespace fodr::agent
