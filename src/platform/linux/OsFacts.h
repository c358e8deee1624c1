// Who belongs to the system and who is a person.
#pragma once

#include <cstdint>
#include <istream>
#include <string>

namespace fodr::platform {

struct AccountFacts {
    uint32_t userId = 0;
    std::string shell;
    bool inLoginSession = false; // as the audit system or the login manager has it
    bool startedAsUnit = false;  // the service manager's mark is in the environment
    std::string controlGroups;   // /proc/self/cgroup
};

bool IsServiceAccount(const AccountFacts &facts);

// The file by which a distribution names itself: os-release(5).

// Without the quotes and escapes of a shell. Empty when there is no such key.
std::string OsReleaseValue(std::istream &file, const std::string &key);

} // namespace fodr::platform
