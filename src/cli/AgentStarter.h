// Gets a stream to an agent: starts one here or over ssh, connects to one, or waits for one.
#pragma once

#include "cli/ShareOptions.h"
#include "host/AgentDoor.h"
#include "platform/ByteStream.h"
#include "platform/ChildProcess.h"

#include <functional>
#include <memory>
#include <mutex>
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

    // `shareOptions` outlive it. `onLine` hears what a process that was started says on standard error, on a
    // thread of its own; `onStranger` why somebody who connected was sent away.
    AgentStarter(const ShareOptions *shareOptions, LineHandler onLine, LineHandler onStranger)
        : options(shareOptions), onErrorLine(std::move(onLine)), onTurnedAway(std::move(onStranger))
    {}

    // Listens, for a target of that kind. False, with a few words in `*error`, when that isn't possible.
    bool Prepare(std::string *error);
    // May take long. One at a time; `mountPoint` is for an agent that is started.
    AgentConnection Connect(const std::string &mountPoint);
    // Ends a Connect that waits for an agent. From any thread.
    void Cancel();
    // Listening: the port.
    uint16_t Port() const { return door ? door->Port() : uint16_t{0}; }

private:
    std::vector<std::string> AgentWords(const std::string &program, const std::string &mountPoint) const;
    AgentConnection StartProcess(const std::vector<std::string> &words,
                                 platform::ChildOptions::Interrupts interrupts);

    const ShareOptions *const options;
    const LineHandler onErrorLine;
    const LineHandler onTurnedAway;
    std::unique_ptr<host::AgentDoor> door;
};

} // namespace fodr::cli
