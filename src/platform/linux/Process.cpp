#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/Process.h"

#include "lib/unicode/CodeSet.h"
#include "platform/Files.h"
#include "platform/linux/LibraryThreads.h"

#include <dlfcn.h>
#include <malloc.h>
#include <pwd.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sys/utsname.h>
#include <thread>
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

void KeepFreedMemory()
{
    constexpr int kLargestPooled = 32 << 20; // as large as the library allows
    constexpr int kKept = 256 << 20;
    mallopt(M_MMAP_THRESHOLD, kLargestPooled);
    mallopt(M_TRIM_THRESHOLD, kKept);
}

void DebugOutput(const char *text)
{
    syslog(LOG_USER | LOG_DEBUG, "%s", text);
}

void WriteStandardError(const char *text, size_t length)
{
    const int savedError = errno;
    const PipeSignalBlock block;
    while (write(STDERR_FILENO, text, length) < 0 && errno == EINTR) {
    }
    errno = savedError;
}

void WriteStandardOutput(const char *text)
{
    const PipeSignalBlock block;
    fputs(text, stdout);
    fflush(stdout);
}

std::string LibraryFileName(const std::string &plainName)
{
    return "lib" + plainName + ".so";
}

std::unique_ptr<DynamicLibrary> DynamicLibrary::Load(const std::string &path, std::string *error)
{
    // It stays mapped to the end: a library may have started threads that only the end of the process ends.
    void *handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (handle == nullptr) {
        const char *reason = dlerror();
        *error = reason != nullptr ? reason : "unknown reason";
        return nullptr;
    }
    return std::unique_ptr<DynamicLibrary>(new DynamicLibrary(handle));
}

DynamicLibrary::~DynamicLibrary()
{
    dlclose(handle);
}

void *DynamicLibrary::Address(const char *name) const
{
    return dlsym(handle, name);
}

} // namespace fodr::platform
