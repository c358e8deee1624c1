// Facts of this process and who runs it. Any thread. The id of a thread is in Threads.h.
#pragma once

#include <cstdint>
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

} // namespace fodr::platform
