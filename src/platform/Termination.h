// Requests of the user or the system that this process end.
#pragma once

#include <functional>

namespace fodr::platform {

enum class TerminationRequest { Interrupt, Terminate, Hangup };

// Tells each request to `handler`, on a thread of its own, instead of ending the process. To be called once,
// before any other thread is started.
void WatchTermination(std::function<void(TerminationRequest)> handler);

// The status that a process has which a request ended: 130, 143, 129.
int StatusOf(TerminationRequest request);

// Ends the process at once with this status, without cleaning up anything.
[[noreturn]] void EndNow(int status);

} // namespace fodr::platform
