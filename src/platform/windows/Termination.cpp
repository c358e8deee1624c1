#include "platform/Termination.h"

#include "platform/windows/ConsoleModes.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace fodr::platform {

namespace {

// Long enough for a clean end: when its handler returns, or after some seconds, the system ends the process.
constexpr DWORD kGraceMS = 10000;

struct Requests {
    std::mutex lock;
    std::condition_variable arrived;
    std::deque<TerminationRequest> queue; // under lock
};

// Never destroyed: the system may call at any moment.
Requests &AllRequests()
{
    static auto *requests = new Requests;
    return *requests;
}

void Push(TerminationRequest request)
{
    Requests &requests = AllRequests();
    const std::lock_guard<std::mutex> held(requests.lock);
    requests.queue.push_back(request);
    requests.arrived.notify_one();
}

BOOL WINAPI OnControl(DWORD event)
{
    switch (event) {
    case CTRL_C_EVENT:
    case CTRL_BREAK_EVENT:
        Push(TerminationRequest::Interrupt);
        return TRUE;
    case CTRL_CLOSE_EVENT:
        Push(TerminationRequest::Hangup);
        break;
    default:
        Push(TerminationRequest::Terminate);
    }
    Sleep(kGraceMS); // the process ends in its own way meanwhile
    return TRUE;
}

} // namespace

void WatchTermination(std::function<void(TerminationRequest)> handler)
{
    std::thread([told = std::move(handler)] {
        Requests &requests = AllRequests();
        for (;;) {
            std::unique_lock<std::mutex> held(requests.lock);
            requests.arrived.wait(held, [&] { return !requests.queue.empty(); });
            const TerminationRequest request = requests.queue.front();
            requests.queue.pop_front();
            held.unlock();
            told(request);
        }
    }).detach();
    SetConsoleCtrlHandler(OnControl, TRUE);
}

int StatusOf(TerminationRequest request)
{
    switch (request) {
    case TerminationRequest::Interrupt:
        return 130;
    case TerminationRequest::Terminate:
        return 143;
    default:
        return 129;
    }
}

void EndNow(int status)
{
    PutConsoleBack();
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(status));
    for (;;) // which doesn't return
        Sleep(INFINITE);
}

} // namespace fodr::platform
