// The agent of a build without FUSE: everything but the mount.
#include "agent/Agent.h"
#include "platform/Process.h"
#include "platform/Volumes.h"

namespace fodr::agent {

int RunAgent(std::unique_ptr<platform::ByteStream> stream, const AgentOptions &)
{
    const std::string line = "fodr: " + platform::MountProblem() + "\n";
    platform::WriteStandardError(line.data(), line.size());
    stream->Shutdown();
    return AGENT_MOUNT_FAILED;
}

std::optional<int> HandOver(const AgentOptions &,
                            const std::function<std::unique_ptr<platform::ByteStream>()> &)
{
    return std::nullopt;
}

} // namespace fodr::agent
