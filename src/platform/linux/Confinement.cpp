// By no_new_privs and Landlock (Documentation/userspace-api/landlock.rst). The numbers are those of the
// kernel's <linux/landlock.h>; the header of the system that this is built on may be older than the kernel it
// runs on.
#include "platform/Confinement.h"

#include "platform/linux/FdStream.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace fodr::platform {
namespace {

constexpr long kCreateRuleset = 444; // the same on every architecture
constexpr long kAddRule = 445;
constexpr long kRestrictSelf = 446;
constexpr uint32_t kAskVersion = 1;
constexpr int kPathBeneath = 1;

struct RulesetAttributes {
    uint64_t handledFiles;
    uint64_t handledNetwork; // since version 4
    uint64_t scoped;         // since version 6
};
struct [[gnu::packed]] PathRule {
    uint64_t allowed;
    int32_t parent;
};

constexpr uint64_t kExecute = 1 << 0;
constexpr uint64_t kWriteFile = 1 << 1;
constexpr uint64_t kRemoveDirectory = 1 << 4;
constexpr uint64_t kRemoveFile = 1 << 5;
constexpr uint64_t kMakeCharacterDevice = 1 << 6;
constexpr uint64_t kMakeDirectory = 1 << 7;
constexpr uint64_t kMakeFile = 1 << 8;
constexpr uint64_t kMakeSocket = 1 << 9;
constexpr uint64_t kMakeFifo = 1 << 10;
constexpr uint64_t kMakeBlockDevice = 1 << 11;
constexpr uint64_t kMakeLink = 1 << 12;
constexpr uint64_t kRefer = 1 << 13;    // since version 2: renames from one folder to another
constexpr uint64_t kTruncate = 1 << 14; // since version 3
constexpr uint64_t kScopeAbstractSockets = 1 << 0;
constexpr uint64_t kScopeSignals = 1 << 1;

constexpr long kVersionWithRefer = 2;
constexpr long kVersionWithTruncate = 3;
constexpr long kVersionWithScopes = 6;

constexpr uint64_t kOfFiles = kWriteFile | kTruncate;
constexpr uint64_t kOfFolders = kOfFiles | kRemoveDirectory | kRemoveFile | kMakeDirectory | kMakeFile |
                                kMakeSocket | kMakeFifo | kMakeLink | kRefer;
constexpr uint64_t kHandled = kOfFolders | kExecute | kMakeCharacterDevice | kMakeBlockDevice;

std::string ErrnoText()
{
    return std::strerror(errno);
}

bool HasOtherThreads()
{
    std::error_code error;
    size_t threads = 0;
    for (std::filesystem::directory_iterator entry("/proc/self/task", error), end; !error && entry != end;
         entry.increment(error))
        ++threads;
    return threads != 1;
}

// What isn't there, or can't be looked at, needs no rule.
bool Allow(const Fd &ruleset, const std::string &path, uint64_t rights)
{
    const Fd place(open(path.c_str(), O_PATH | O_CLOEXEC));
    struct stat facts {};
    if (!place || fstat(place.Get(), &facts) != 0)
        return true;
    const PathRule rule{rights & (S_ISDIR(facts.st_mode) ? kOfFolders : kOfFiles), place.Get()};
    return syscall(kAddRule, ruleset.Get(), kPathBeneath, &rule, 0) == 0;
}

// False with the reason in `*problem`.
bool RestrictFiles(const ConfinementRules &rules, std::string *problem)
{
    const long version = syscall(kCreateRuleset, nullptr, 0, kAskVersion);
    if (version < 0) {
        *problem = "the kernel has no Landlock";
        return false;
    }
    if (version < kVersionWithRefer) {
        *problem = "the kernel's Landlock is too old for renames between folders";
        return false;
    }
    const uint64_t handled = version < kVersionWithTruncate ? kHandled & ~kTruncate : kHandled;
    const bool scopes = version >= kVersionWithScopes;
    const RulesetAttributes attributes{handled, 0, scopes ? kScopeAbstractSockets | kScopeSignals : 0};
    const size_t size = scopes ? sizeof(attributes) : sizeof(attributes.handledFiles);
    const Fd ruleset(static_cast<int>(syscall(kCreateRuleset, &attributes, size, 0)));
    bool done = static_cast<bool>(ruleset);
    for (const std::string &path : rules.writable)
        done = done && Allow(ruleset, path, handled);
    for (const std::string &path : rules.tidied)
        done = done && Allow(ruleset, path, kRemoveDirectory);
    done = done && syscall(kRestrictSelf, ruleset.Get(), 0) == 0;
    if (!done)
        *problem = "Landlock refuses the rules: " + ErrnoText();
    return done;
}

} // namespace

Confinement ConfineProcess(const ConfinementRules &rules)
{
    Confinement made;
    if (HasOtherThreads()) {
        made.problem = "other threads run already";
        return made;
    }
    made.privileges = prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0;
    if (!made.privileges)
        made.problem = "privileges can't be given up: " + ErrnoText();
    else
        made.files = RestrictFiles(rules, &made.problem);
    return made;
}

} // namespace fodr::platform
