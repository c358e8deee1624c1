#include "platform/Threads.h"

#include "platform/windows/OwnedHandle.h"
#include "platform/windows/QuietThread.h"
#include "platform/windows/WideText.h"

#include <combaseapi.h>
#include <objbase.h>
#include <process.h>

#include <memory>

namespace fodr::platform {

struct ThreadRecord {
    OwnedHandle handle;
    DWORD id = 0;
};

namespace {

struct ThreadStart {
    ThreadFunction function;
    void *argument;
    HMODULE module;
};

// The library that holds this code, or the program. A thread keeps it: who unloads it meanwhile would take
// the code away from under the thread, or wait for it inside the loader, which the thread's end needs.
HMODULE KeepModule()
{
    HMODULE module = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<const wchar_t *>(&KeepModule),
                       &module);
    return module;
}

unsigned __stdcall ThreadEntry(void *argument)
{
    const ThreadStart start = *static_cast<ThreadStart *>(argument);
    delete static_cast<ThreadStart *>(argument);
    {
        const QuietThread quiet;
        start.function(start.argument);
    }
    if (start.module)
        FreeLibraryAndExitThread(start.module, 0);
    return 0;
}

} // namespace

ThreadRecord *StartThread(ThreadFunction function, void *argument)
{
    auto record = std::make_unique<ThreadRecord>();
    auto start = std::make_unique<ThreadStart>(ThreadStart{function, argument, KeepModule()});
    unsigned id = 0;
    // Not CreateThread: the C library keeps things for each thread that only its own call takes down.
    const uintptr_t handle = _beginthreadex(nullptr, 0, ThreadEntry, start.get(), 0, &id);
    if (handle == 0) {
        if (start->module)
            FreeLibrary(start->module);
        return nullptr;
    }
    [[maybe_unused]] ThreadStart *taken = start.release();
    record->handle.Reset(reinterpret_cast<HANDLE>(handle));
    record->id = id;
    return record.release();
}

bool JoinThread(ThreadRecord *thread)
{
    if (thread->id == GetCurrentThreadId() ||
        WaitForSingleObject(thread->handle.Get(), INFINITE) != WAIT_OBJECT_0)
        return false;
    delete thread;
    return true;
}

bool DetachThread(ThreadRecord *thread)
{
    delete thread;
    return true;
}

Waitable DuplicateThreadHandle(ThreadRecord *thread)
{
    return DuplicateWaitable(thread->handle.Get());
}

uint32_t CurrentThreadId()
{
    return GetCurrentThreadId();
}

void SetCurrentThreadName(const char *name)
{
    using SetDescription = HRESULT(WINAPI *)(HANDLE, PCWSTR); // Windows 10 1607 and later
    static const auto set = reinterpret_cast<SetDescription>(reinterpret_cast<void *>(
        GetProcAddress(GetModuleHandleW(L"KernelBase.dll"), "SetThreadDescription")));
    std::wstring wide;
    if (set && Widen(name, wide))
        set(GetCurrentThread(), wide.c_str());
}

ThreadApartment::ThreadApartment() : entered(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED))) {}

ThreadApartment::~ThreadApartment()
{
    if (entered)
        CoUninitialize();
}

} // namespace fodr::platform
