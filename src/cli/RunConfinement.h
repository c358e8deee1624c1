// What a run of `fodr share` gives up before it listens to an agent, and how it starts other programs then.
#pragma once

#include "cli/MountFolder.h"
#include "cli/ShareOptions.h"
#include "platform/ChildProcess.h"
#include "platform/Confinement.h"

#include <memory>
#include <string>
#include <vector>

namespace fodr::cli {

class RunConfinement {
public:
    // Confines this process, for good, if the run is a fixed one. To be called before there are other
    // threads. The run's runtime folder is there already. `mountPoint` may be null.
    static RunConfinement Of(const ShareOptions &options, const MountFolder *mountPoint);

    // "yes", or a few words that begin with "no" or "partly".
    const std::string &State() const { return state; }

    // As ChildProcess::Start, also when this process can't start programs any more. Any thread.
    std::unique_ptr<platform::ChildProcess> Start(const platform::ChildOptions &child,
                                                  std::string *error) const;
    // As platform::DetachMount, of the run's mount point.
    bool DetachMount(const std::string &path) const;

private:
    std::string state;
    std::unique_ptr<platform::ChildLauncher> launcher; // null: not confined
};

} // namespace fodr::cli
