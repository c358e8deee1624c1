// Which channel a plug-in is being called for, so that the functions of the boundary that name none can tell.
#pragma once

namespace fodr::host {

class HostChannel;

// Around every call into a plug-in.
class CallScope {
public:
    explicit CallScope(HostChannel *channel) : outer(current) { current = channel; }
    ~CallScope() { current = outer; }
    CallScope(const CallScope &) = delete;
    CallScope &operator=(const CallScope &) = delete;

    // Null outside such calls.
    static HostChannel *Current() { return current; }

private:
    HostChannel *const outer;
    static inline thread_local HostChannel *current = nullptr;
};

} // namespace fodr::host
