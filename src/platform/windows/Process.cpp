#include "platform/Process.h"

#include "platform/UserFolders.h"
#include "platform/windows/ConsoleModes.h"
#include "platform/windows/OwnedHandle.h"
#include "platform/windows/UserIdentity.h"
#include "platform/windows/WideText.h"

#include <lmcons.h>
#include <shellapi.h>

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

} // namespace fodr::platform
