#include "platform/Process.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "lib/unicode/CodeSet.h"
#include "platform/UserFolders.h"

#include <dlfcn.h>
#include <pwd.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sys/utsname.h>
#include <vector>

namespace fodr::platform {

std::u16string ComputerName()
{
    utsname names{};
    std::u16string name;
    if (uname(&names) != 0 || !Utf8ToUtf16(names.nodename, name))
        return {};
    return name;
}

std::string UserName()
{
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd *found = nullptr;
    if (getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found)
        return found->pw_name;
    return std::to_string(geteuid()); // an account without a name, as in a container
}

std::string EnvironmentUserName()
{
    const std::string name = GetEnvironment("USERNAME");
    return name.empty() ? UserName() : name;
}

uint32_t CurrentProcessId()
{
    return static_cast<uint32_t>(getpid());
}

bool CurrentSessionId(uint32_t &sessionId)
{
    // The audit session is what the login manager gives its sessions; outside of one it reads as -1.
    uint32_t login = kNoSession;
    std::ifstream file("/proc/self/sessionid");
    if (!(file >> login) || login == kNoSession)
        login = 0; // where services run
    sessionId = login;
    return true;
}

bool ThreadSessionId(uint32_t &sessionId)
{
    sessionId = kNoSession;
    return true;
}

std::vector<std::string> ProgramArguments(int count, char **words)
{
    return {words + (count > 0 ? 1 : 0), words + count};
}

std::string ModulePath(const void *address)
{
    std::error_code error;
    std::string program = std::filesystem::read_symlink("/proc/self/exe", error).string();
    if (!address)
        return program;
    Dl_info info{};
    if (dladdr(address, &info) == 0 || !info.dli_fname)
        return {};
    // Of the program itself the loader knows only what it was called by.
    void *handle = dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD);
    if (!handle)
        return program;
    dlclose(handle);
    const std::filesystem::path path = std::filesystem::canonical(info.dli_fname, error);
    return error ? std::string() : path.string();
}

} // namespace fodr::platform
