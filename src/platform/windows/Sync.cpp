// Events, waits and the mutex are the kernel's.
#include "platform/Threads.h"
#include "platform/windows/Win32.h"

#include <memory>
#include <new>

namespace fodr::platform {

namespace {

static_assert(kWaitForever == INFINITE && kMaximumWaitables == MAXIMUM_WAIT_OBJECTS);

// Every kind of message that can wake a thread but QS_ALLPOSTMESSAGE's repetition of them.
constexpr DWORD kWakeMask = 7423;
constexpr DWORD kNewerMessages = 0x1800; // touch and pointers, which Windows 7 doesn't know
// One entry of the list is the message queue's.
constexpr size_t kMaximumWithMessages = MAXIMUM_WAIT_OBJECTS - 1;

// The empty name is no name.
const wchar_t *NameOf(const char *name, std::wstring &wide)
{
    return name && *name && Widen(name, wide) ? wide.c_str() : nullptr;
}

HANDLE &Handle(std::byte *state)
{
    return *std::launder(reinterpret_cast<HANDLE *>(state));
}

} // namespace

Waitable CreateEventObject(bool manualReset, bool initiallySet, const char *name)
{
    std::wstring wide;
    return CreateEventW(nullptr, manualReset, initiallySet, NameOf(name, wide));
}

Waitable DuplicateWaitable(Waitable handle)
{
    HANDLE copy = nullptr;
    const HANDLE self = GetCurrentProcess();
    if (!handle || !DuplicateHandle(self, handle, self, &copy, 0, FALSE, DUPLICATE_SAME_ACCESS))
        return nullptr;
    return copy;
}

bool CloseWaitable(Waitable handle)
{
    return handle && CloseHandle(handle);
}

bool SetEventObject(Waitable handle)
{
    return SetEvent(handle);
}

bool ResetEventObject(Waitable handle)
{
    return ResetEvent(handle);
}

WaitResult WaitForWaitables(const Waitable *handles, size_t count, uint32_t timeoutMS, WaitOptions options)
{
    if (count > (options.messagesToo ? kMaximumWithMessages : kMaximumWaitables))
        return {WaitStatus::Failed, 0};
    const auto size = static_cast<DWORD>(count);
    DWORD result;
    if (options.messagesToo) {
        result = MsgWaitForMultipleObjects(size, handles, options.waitAll, timeoutMS, kWakeMask);
        if (result == WAIT_FAILED && GetLastError() == ERROR_INVALID_FLAGS)
            result = MsgWaitForMultipleObjects(size, handles, options.waitAll, timeoutMS,
                                               kWakeMask & ~kNewerMessages);
    } else {
        result = WaitForMultipleObjectsEx(size, handles, options.waitAll, timeoutMS, options.alertable);
    }
    if (options.messagesToo && result == WAIT_OBJECT_0 + size)
        return {WaitStatus::Message, size};
    if (result < WAIT_OBJECT_0 + size)
        return {WaitStatus::Object, result - WAIT_OBJECT_0};
    if (result == WAIT_TIMEOUT)
        return {WaitStatus::TimedOut, 0};
    return {result == WAIT_IO_COMPLETION ? WaitStatus::Alerted : WaitStatus::Failed, 0};
}

RecursiveMutex::RecursiveMutex(const char *name)
{
    static_assert(sizeof(HANDLE) <= sizeof(state));
    std::wstring wide;
    new (state) HANDLE(CreateMutexW(nullptr, FALSE, NameOf(name, wide)));
}

RecursiveMutex::~RecursiveMutex()
{
    if (Handle(state))
        CloseHandle(Handle(state));
}

RecursiveMutex::Outcome RecursiveMutex::Acquire(uint32_t timeoutMS, int32_t *error)
{
    switch (WaitForSingleObject(Handle(state), timeoutMS)) {
    case WAIT_OBJECT_0:
        return Outcome::Acquired;
    case WAIT_ABANDONED:
        return Outcome::Abandoned;
    case WAIT_TIMEOUT:
        return Outcome::TimedOut;
    default:
        *error = static_cast<int32_t>(GetLastError());
        return Outcome::Failed;
    }
}

bool RecursiveMutex::Release()
{
    return ReleaseMutex(Handle(state));
}

} // namespace fodr::platform
