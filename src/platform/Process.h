// This process: who runs it, on what system, how it ends, and the libraries that it loads. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace fodr::platform {

// Empty when it can't be told.
std::u16string ComputerName();
std::string UserName();
// The user's name as the environment has it ("USERNAME"), which needn't be the account's; on Linux the
// account's when the environment has none. May be empty.
std::string EnvironmentUserName();

// Whether this process belongs to the system rather than to a person: on Windows by its account (network
// service, local service, local system), on Linux as a service of the service manager or by an account that
// nobody can log in with. Being root alone makes no service.
bool RunsAsService();

uint32_t CurrentProcessId();

inline constexpr uint32_t kNoSession = 0xFFFFFFFF;

// The desktop session of this process. False, with kNoSession, when it can't be told.
bool CurrentSessionId(uint32_t &sessionId);
// The session of the calling thread's own identity. True with kNoSession when the thread has none of its own,
// which on Linux is always so; false when the question failed.
bool ThreadSessionId(uint32_t &sessionId);

// What stands behind the program's name on the command line, in UTF-8. `count` and `words` are main's, which
// on Windows are in another encoding.
std::vector<std::string> ProgramArguments(int count, char **words);

// The absolute path of the library or program that holds the address, of the program for null. Empty when
// there is none.
std::string ModulePath(const void *address);

// Requests of the user or the system that this process end.
enum class TerminationRequest { Interrupt, Terminate, Hangup };

// Tells each request to `handler`, on a thread of its own, instead of ending the process. To be called once,
// before any other thread is started.
void WatchTermination(std::function<void(TerminationRequest)> handler);

// The status that a process has which a request ended: 130, 143, 129.
int StatusOf(TerminationRequest request);

// Ends the process at once with this status, without cleaning up anything.
[[noreturn]] void EndNow(int status);

// Texts for the developer that don't go through the log. Any thread; never fails towards the caller, also
// when nobody reads the stream any more.

// To the system's debug channel: syslog, or an attached debugger. For failures before a log exists.
void DebugOutput(const char *text);

// To the standard error stream in a single write, so that lines of several threads don't mix.
void WriteStandardError(const char *text, size_t length);

// To the standard output stream, behind what the process has put there, and out of its buffer at once.
void WriteStandardOutput(const char *text);

// How this process uses memory.

// Large blocks that are freed stay with the process to be used again, instead of going back to the system and
// being cleared each time. For programs that hand large buffers around all the time. To be called at the
// start.
void KeepFreedMemory();

// What the system and its program files say of themselves. Any thread.

// What a system without a registry of its own would have under "Microsoft\Windows NT\CurrentVersion": by the
// name of the value, "ProductName", say. Empty for what it doesn't tell; on Windows always, as the registry
// does.
std::string OsVersionValue(const std::string &name);

// Whether several users may work here at a time by remote desktop. Not on Linux.
bool HasRemoteDesktopServices();

// The product version in the version block that the build puts into a program or library. False for a file
// without one. A block that doesn't tell the version leaves it empty.
bool FileProductVersion(const std::string &path, std::string &version);

// A shared library that is loaded by its path.

// The file name that a library of this plain name has here.
std::string LibraryFileName(const std::string &plainName);

class DynamicLibrary {
public:
    // Null when it can't be loaded, with the system's reason in `*error`.
    static std::unique_ptr<DynamicLibrary> Load(const std::string &path, std::string *error);
    // Gives it back; functions found in it are not to be called any more.
    ~DynamicLibrary();
    DynamicLibrary(const DynamicLibrary &) = delete;
    DynamicLibrary &operator=(const DynamicLibrary &) = delete;

    // The exported function, null when there is none of the name. `Function` is a pointer type.
    template <typename Function> Function Find(const char *name) const
    {
        return reinterpret_cast<Function>(Address(name));
    }

private:
    explicit DynamicLibrary(void *loaded) : handle(loaded) {}
    void *Address(const char *name) const;

    void *const handle;
};

} // namespace fodr::platform

// Marks the few functions that a shared library shows to the outside.
#if defined(_WIN32)
#define FODR_EXPORT extern "C" __declspec(dllexport)
#else
#define FODR_EXPORT extern "C" __attribute__((visibility("default")))
#endif
