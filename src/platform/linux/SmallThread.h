// Threads with a small stack, for pools that may have a thousand of them.
#pragma once

#include <pthread.h>

namespace fodr::platform {

// A thread on which no signal of the host's lands. The caller joins it. False when none can be had.
[[nodiscard]] bool StartSmallThread(pthread_t *thread, void *(*entry)(void *), void *argument);

} // namespace fodr::platform
