// A process of its own that starts programs for one that gives up its rights (Confinement.h). What it may
// start is fixed when it is made: who takes the confined process over can't have other programs started.
#pragma once

#include "platform/ChildProcess.h"

#include <memory>
#include <string>
#include <vector>

namespace fodr::platform {

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
