#include "platform/linux/ServiceAccount.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/Process.h"
#include "platform/UserFolders.h"

#include <pwd.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <vector>

namespace fodr::platform {

namespace {

constexpr uint32_t kFirstPerson = 1000; // UID_MIN of login.defs(5)

bool NobodyLogsIn(const std::string &shell)
{
    return shell.ends_with("/nologin") || shell.ends_with("/false");
}

// The path in the hierarchy of the service manager: "0::/system.slice/a.service", or in the older layout
// "1:name=systemd:/...".
std::string UnitPath(const std::string &controlGroups)
{
    std::istringstream lines(controlGroups);
    for (std::string line; std::getline(lines, line);) {
        for (const char *hierarchy : {"::", ":name=systemd:"}) {
            const size_t found = line.find(hierarchy);
            const size_t path = found == std::string::npos ? found : line.find('/', found);
            if (path != std::string::npos)
                return line.substr(path);
        }
    }
    return {};
}

} // namespace

bool IsServiceAccount(const AccountFacts &facts)
{
    if (facts.userId != 0 && facts.userId < kFirstPerson && NobodyLogsIn(facts.shell))
        return true;
    if (facts.inLoginSession)
        return false;
    const std::string unit = UnitPath(facts.controlGroups);
    if (unit.starts_with("/user.slice/")) // also the services that a person runs
        return false;
    return facts.startedAsUnit || (unit.starts_with("/system.slice/") && unit.ends_with(".service"));
}

bool RunsAsService()
{
    AccountFacts facts;
    facts.userId = geteuid();
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd *found = nullptr;
    if (getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found)
        facts.shell = entry.pw_shell;
    uint32_t login = kNoSession;
    std::ifstream audit("/proc/self/sessionid");
    facts.inLoginSession =
        (audit >> login && login != kNoSession) || !GetEnvironment("XDG_SESSION_ID").empty();
    facts.startedAsUnit = !GetEnvironment("INVOCATION_ID").empty();
    std::ifstream groups("/proc/self/cgroup");
    facts.controlGroups.assign(std::istreambuf_iterator<char>(groups), {});
    return IsServiceAccount(facts);
}

} // namespace fodr::platform
