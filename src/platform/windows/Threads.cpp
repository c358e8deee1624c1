#include "platform/Threads.h"

#include "lib/misc/FileTime.h"
#include "platform/Files.h"
#include "platform/windows/Win32.h"

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

namespace {

// The C library's functions take times from 1970 on only. Local times before that follow the rules of today.
std::tm BreakDownSince1601(int64_t seconds, bool utc)
{
    const uint64_t ticks = static_cast<uint64_t>(seconds + kFileTimeEpochSeconds) * kFileTimePerSecond;
    const FILETIME fileTime{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
    SYSTEMTIME universal{};
    SYSTEMTIME wanted{};
    FileTimeToSystemTime(&fileTime, &universal);
    wanted = universal;
    if (!utc)
        SystemTimeToTzSpecificLocalTime(nullptr, &universal, &wanted);
    std::tm brokenDown{};
    brokenDown.tm_year = wanted.wYear - 1900;
    brokenDown.tm_mon = wanted.wMonth - 1;
    brokenDown.tm_mday = wanted.wDay;
    brokenDown.tm_hour = wanted.wHour;
    brokenDown.tm_min = wanted.wMinute;
    brokenDown.tm_sec = wanted.wSecond;
    brokenDown.tm_wday = wanted.wDayOfWeek;
    return brokenDown;
}

} // namespace

std::tm BreakDownTime(int64_t seconds, bool utc)
{
    const time_t time = seconds;
    std::tm brokenDown{};
    if (utc || seconds < 0)
        brokenDown = BreakDownSince1601(seconds, utc);
    else
        localtime_s(&brokenDown, &time);
    return brokenDown;
}

LocalZone CurrentLocalZone()
{
    TIME_ZONE_INFORMATION zone{};
    const DWORD season = GetTimeZoneInformation(&zone);
    // Where there is no daylight time the log shows no zone at all.
    if (season != TIME_ZONE_ID_STANDARD && season != TIME_ZONE_ID_DAYLIGHT)
        return {"", static_cast<int32_t>(zone.Bias)};
    const bool summer = season == TIME_ZONE_ID_DAYLIGHT;
    return {Narrow(summer ? zone.DaylightName : zone.StandardName),
            static_cast<int32_t>(zone.Bias + (summer ? zone.DaylightBias : zone.StandardBias))};
}

} // namespace fodr::platform
