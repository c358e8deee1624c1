#include "platform/Termination.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include <unistd.h>

#include <csignal>
#include <thread>

namespace fodr::platform {

void WatchTermination(std::function<void(TerminationRequest)> handler)
{
    sigset_t watched;
    sigemptyset(&watched);
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&watched, number);
    pthread_sigmask(SIG_BLOCK, &watched, nullptr);
    std::thread([watched, told = std::move(handler)] {
        for (;;) {
            int number = 0;
            if (sigwait(&watched, &number) != 0)
                continue;
            told(number == SIGINT    ? TerminationRequest::Interrupt
                 : number == SIGTERM ? TerminationRequest::Terminate
                                     : TerminationRequest::Hangup);
        }
    }).detach();
}

int StatusOf(TerminationRequest request)
{
    switch (request) {
    case TerminationRequest::Interrupt:
        return 128 + SIGINT;
    case TerminationRequest::Terminate:
        return 128 + SIGTERM;
    default:
        return 128 + SIGHUP;
    }
}

void EndNow(int status)
{
    _exit(status);
}

} // namespace fodr::platform
