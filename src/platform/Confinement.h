// Gives up, for good, what a process doesn't need any more. It counts for all that the process starts
// afterwards, so programs that need more are started before, or by a ChildLauncher that was made before.
#pragma once

#include "platform/ChildProcess.h"

#include <memory>
#include <string>
#include <vector>

namespace fodr::platform {

struct Confinement {
    bool privileges = false; // no program that it starts can have more rights than it
    bool files = false;      // nothing can be written beside what was named, and no program started
    std::string problem;     // why it isn't both, in a few words
};

// What isn't there is left out.
struct ConfinementRules {
    // Folders below which files may be made, changed, renamed and removed, and files that may be written to.
    std::vector<std::string> writable;
    std::vector<std::string> tidied; // folders below which empty folders may be removed, and nothing else
};

// To be called before there are other threads. Reading stays as it is.
[[nodiscard]] Confinement ConfineProcess(const ConfinementRules &rules);

// A process of its own that starts programs for one that gives up its rights (Confinement.h). What it may
// start is fixed when it is made: who takes the confined process over can't have other programs started.
class ChildLauncher {
public:
    // To be called before there are other threads. Of each of the `planned` only `arguments`, `interrupts`
    // and the names in `environment` count: no others can be set later. Null, with a few words in `*error`,
    // when it can't be made.
    static std::unique_ptr<ChildLauncher> Create(const std::vector<ChildOptions> &planned,
                                                 std::string *error);
    // It ends; what it has started goes on.
    virtual ~ChildLauncher() = default;
    ChildLauncher(const ChildLauncher &) = delete;
    ChildLauncher &operator=(const ChildLauncher &) = delete;

    // As ChildProcess::Start, for a program that is planned, as often as asked for. Any thread.
    virtual std::unique_ptr<ChildProcess> Start(const ChildOptions &options, std::string *error) = 0;

protected:
    ChildLauncher() = default;
};

} // namespace fodr::platform
