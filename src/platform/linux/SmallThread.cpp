#include "platform/linux/SmallThread.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include <signal.h>

#include <cstddef>
#include <initializer_list>

namespace fodr::platform {

namespace {

// The instrumentation of sanitizers needs larger frames.
#ifndef __has_feature
#define __has_feature(x) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || __has_feature(address_sanitizer) ||     \
    __has_feature(thread_sanitizer)
constexpr size_t kStackSize = 2048 * 1024;
#else
constexpr size_t kStackSize = 256 * 1024;
#endif

} // namespace

bool StartSmallThread(pthread_t *thread, void *(*entry)(void *), void *argument)
{
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0)
        return false;
    sigset_t blocked;
    sigset_t previous;
    sigfillset(&blocked);
    for (int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS, SIGPROF})
        sigdelset(&blocked, fault);
    pthread_sigmask(SIG_SETMASK, &blocked, &previous);
    const bool started = pthread_attr_setstacksize(&attributes, kStackSize) == 0 &&
                         pthread_create(thread, &attributes, entry, argument) == 0;
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    pthread_attr_destroy(&attributes);
    return started;
}

} // namespace fodr::platform
