// The agent as the command runs it: the remote end of a connection, with the shares mounted through FUSE.
#pragma once

#include "agent/ClientOptions.h"
#include "platform/ByteStream.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace fodr::agent {

enum class MountLayout {
    Single,  // the first share is the mount point itself
    Folders, // the mount point lists the shares by name, as they come and go
};

struct AgentOptions {
    std::string mountPoint; // an existing directory
    MountLayout layout = MountLayout::Single;
    bool readOnly = false;        // the mount refuses changes by itself
    bool allowOther = false;      // users other than the mounting one may come in
    bool realOwners = false;      // files show the owners that they have on the host
    unsigned cacheMS = 1000;      // how long names and attributes are believed without asking
    bool denyWriters = false;     // see FileSystem::Options
    bool events = true;           // programs in the mount get events of what the owner does
    bool handleSignals = true;    // SIGINT, SIGTERM and SIGHUP end the agent; they stay blocked afterwards
    unsigned shareWaitMS = 30000; // Single: how long to wait for the first share; 0: forever
    // How long the mount stays without a connection, for the host to come back; 0: the two end together.
    unsigned lingerSeconds = 0;
    // The mount is served by a process of its own, which doesn't end with the one that was started, nor with
    // that one's terminal or standard streams. For lingering.
    bool ownProcess = false;
    // For lingering: waits for another connection, over and over, null when there was none. Called on a
    // thread of its own; `stopNextStream` ends a call. Without, only HandOver brings one.
    std::function<std::unique_ptr<platform::ByteStream>()> nextStream;
    std::function<void()> stopNextStream;
    ClientOptions client;
};

// Results of RunAgent, fit for an exit code.
enum AgentExit : int {
    AGENT_ENDED = 0,        // unmounted on request: a signal, umount, the host's goodbye
    AGENT_MOUNT_FAILED = 3, // the mount point can't be used; the error text names it
    AGENT_LOST = 4,         // the connection ended without a goodbye
    AGENT_REFUSED = 5,      // the two ends don't agree: token, version, protocol; or no share came
    AGENT_BUSY = 6,         // ended, but files were still open: the mount was detached lazily
};

// Runs until the stream ends (and lingering is over), a signal comes, the file system is unmounted or the
// host says goodbye; then unmounts. One AgentExit. What the user should know goes to the host as notices and
// to standard error as lines that begin "fodr: ".
int RunAgent(std::unique_ptr<platform::ByteStream> stream, const AgentOptions &options);

// Gives the connection that `open` makes to the agent that serves the mount point already, if it lingers, and
// waits until that is done with it. One AgentExit; nothing when there is no such agent. Only the path of the
// mount point is looked at, not what is there. For a process without other threads.
std::optional<int> HandOver(const AgentOptions &options,
                            const std::function<std::unique_ptr<platform::ByteStream>()> &open);

} // namespace fodr::agent
