// How a run of `fodr share` gets a stream to an agent, and what it gives up before it listens to one.
#pragma once

#include "cli/MountFolder.h"
#include "cli/ShareOptions.h"
#include "host/AgentDoor.h"
#include "platform/ByteStream.h"
#include "platform/ChildProcess.h"
#include "platform/Confinement.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace fodr::cli {

// What a run of `fodr share` gives up before it listens to an agent, and how it starts other programs then.
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

// Gets a stream to an agent: starts one here or over ssh, connects to one, or waits for one.
struct AgentConnection {
    std::unique_ptr<platform::ByteStream> stream;    // null: it failed
    std::unique_ptr<platform::ChildProcess> process; // the agent or ssh, if we started one
    std::string error;                               // a few words
};

class AgentStarter {
public:
    using LineHandler = std::function<void(const std::string &line)>;

    // `shareOptions` and `runConfinement` outlive it. `onLine` hears what a process that was started says on
    // standard error, on a thread of its own; `onStranger` why somebody who connected was sent away.
    AgentStarter(const ShareOptions *shareOptions, const RunConfinement *runConfinement, LineHandler onLine,
                 LineHandler onStranger)
        : options(shareOptions), confinement(runConfinement), onErrorLine(std::move(onLine)),
          onTurnedAway(std::move(onStranger))
    {}

    // The process that Connect starts, as far as its command line goes; none where it starts none.
    static std::optional<platform::ChildOptions> AgentProcess(const ShareOptions &options,
                                                              const std::string &mountPoint);

    // Listens, for a target of that kind. False, with a few words in `*error`, when that isn't possible.
    bool Prepare(std::string *error);
    // May take long. One at a time; `mountPoint` is for an agent that is started.
    AgentConnection Connect(const std::string &mountPoint);
    // Ends a Connect that waits for an agent. From any thread.
    void Cancel();
    // Listening: the port.
    uint16_t Port() const { return door ? door->Port() : uint16_t{0}; }

private:
    AgentConnection StartProcess(platform::ChildOptions child);

    const ShareOptions *const options;
    const RunConfinement *const confinement;
    const LineHandler onErrorLine;
    const LineHandler onTurnedAway;
    std::unique_ptr<host::AgentDoor> door;
};

} // namespace fodr::cli
