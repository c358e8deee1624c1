#include "platform/Process.h"

#include "lib/misc/Mutex.h"
#include "platform/Files.h"
#include "platform/SystemError.h"
#include "platform/windows/ConsoleModes.h"
#include "platform/windows/UserIdentity.h"
#include "platform/windows/Win32.h"

#include <lmcons.h>
#include <shellapi.h>

#include <cstdio>
#include <deque>
#include <filesystem>
#include <thread>

namespace fodr::platform {

std::u16string ComputerName()
{
    wchar_t name[256];
    DWORD size = sizeof(name) / sizeof(name[0]);
    if (!GetComputerNameW(name, &size))
        return {};
    return std::u16string(AsUtf16(name), size);
}

std::string UserName()
{
    wchar_t name[UNLEN + 1];
    DWORD size = UNLEN + 1;
    return GetUserNameW(name, &size) ? Narrow(name) : std::string();
}

std::string EnvironmentUserName()
{
    return GetEnvironment("USERNAME");
}

bool RunsAsService()
{
    const std::wstring user = UserOfProcess(GetCurrentProcess());
    // NT authority's network service, local service and local system (MS-DTYP 2.4.2.4).
    return user == L"S-1-5-20" || user == L"S-1-5-19" || user == L"S-1-5-18";
}

uint32_t CurrentProcessId()
{
    return GetCurrentProcessId();
}

bool CurrentSessionId(uint32_t &sessionId)
{
    DWORD id = 0;
    const bool known = ProcessIdToSessionId(GetCurrentProcessId(), &id);
    sessionId = known ? id : kNoSession;
    return known;
}

bool ThreadSessionId(uint32_t &sessionId)
{
    sessionId = kNoSession;
    HANDLE opened = nullptr;
    if (!OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, FALSE, &opened))
        return true; // it has none of its own
    const OwnedHandle token(opened);
    DWORD id = kNoSession;
    DWORD size = 0;
    if (!GetTokenInformation(token.Get(), TokenSessionId, &id, sizeof(id), &size))
        return false;
    sessionId = id;
    return true;
}

std::vector<std::string> ProgramArguments(int, char **)
{
    std::vector<std::string> arguments;
    int count = 0;
    wchar_t **words = CommandLineToArgvW(GetCommandLineW(), &count);
    for (int i = 1; words && i < count; ++i)
        arguments.push_back(Narrow(words[i]));
    LocalFree(words);
    PrintUtf8(); // what the program says is in the same encoding
    // A look at an empty drive fails; the system's box would wait for the user instead.
    SetErrorMode(GetErrorMode() | SEM_FAILCRITICALERRORS);
    return arguments;
}

std::string ModulePath(const void *address)
{
    constexpr DWORD kLongestPath = 32768;
    HMODULE module = nullptr;
    if (address && !GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                                           GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                                       static_cast<const wchar_t *>(address), &module))
        return {};
    std::wstring path(kLongestPath, L'\0');
    const DWORD length = GetModuleFileNameW(module, path.data(), kLongestPath);
    return length < kLongestPath ? Narrow(std::wstring_view(path.data(), length)) : std::string();
}

namespace {

// Long enough for a clean end: when its handler returns, or after some seconds, the system ends the process.
constexpr DWORD kGraceMS = 10000;

struct Requests {
    TerminationRequest Take()
    {
        const MutexLock held(lock);
        while (queue.empty())
            arrived.wait(lock);
        const TerminationRequest request = queue.front();
        queue.pop_front();
        return request;
    }

    Mutex lock;
    Condition arrived;
    std::deque<TerminationRequest> queue GUARDED_BY(lock);
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
    const MutexLock held(requests.lock);
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
        for (;;)
            told(requests.Take());
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

// The heap keeps what it is given back by itself, up to blocks of half a megabyte.
void KeepFreedMemory() {}

void DebugOutput(const char *text)
{
    OutputDebugStringA(text);
}

void WriteStandardError(const char *text, size_t length)
{
    const DWORD savedError = GetLastError();
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_ERROR_HANDLE), text, static_cast<DWORD>(length), &written, nullptr);
    SetLastError(savedError);
}

void WriteStandardOutput(const char *text)
{
    fputs(text, stdout);
    fflush(stdout);
}

std::string LibraryFileName(const std::string &plainName)
{
    return plainName + ".dll";
}

std::unique_ptr<DynamicLibrary> DynamicLibrary::Load(const std::string &path, std::string *error)
{
    std::wstring wide;
    std::error_code ignored;
    if (Widen(path, wide))
        wide = std::filesystem::absolute(wide, ignored).make_preferred().wstring();
    // What it needs itself is looked for beside it, not in the current folder.
    HMODULE module = LoadLibraryExW(wide.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (!module) {
        *error = path + ": " + SystemErrorText(GetLastError());
        return nullptr;
    }
    return std::unique_ptr<DynamicLibrary>(new DynamicLibrary(module));
}

DynamicLibrary::~DynamicLibrary()
{
    FreeLibrary(static_cast<HMODULE>(handle));
}

void *DynamicLibrary::Address(const char *name) const
{
    return reinterpret_cast<void *>(GetProcAddress(static_cast<HMODULE>(handle), name));
}

} // namespace fodr::platform
