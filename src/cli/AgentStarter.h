// Gets a stream to an agent: starts one here or over ssh, connects to one, or waits for one.
#pragma once

#include "cli/RunConfinement.h"
#include "cli/ShareOptions.h"
#include "host/AgentDoor.h"
#include "platform/ByteStream.h"
#include "platform/ChildProcess.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace fodr::cli {

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
