// How an agent that lives on without a connection gets the next one: a later agent of the same user, started
// for the same mount point, passes it its streams through a local socket and waits for the end.
#pragma once

#include "agent/Agent.h"
#include "platform/linux/FdStream.h"

#include <memory>
#include <optional>
#include <string>

namespace fodr::agent {

// To the process that waits for the end of a connection, and from it. Empty for an agent without one.
class FrontLine {
public:
    FrontLine() = default;
    explicit FrontLine(Fd localSocket) : socket(std::move(localSocket)) {}

    // The waiting process ends with the code, or says the sentence and ends with AGENT_MOUNT_FAILED.
    void SayExit(int code);
    // Likewise, once this process has ended.
    void SayLastExit(int code);
    void SayRefused(const std::string &sentence);
    // To be waited for; -1 without.
    int Descriptor() const { return socket.Get(); }
    // What there is to read: true for a wish that the agent ends. Closed by the other side, it is let go.
    bool TakeEndWish();

    // The other side: waits, and passes SIGINT and SIGTERM on as that wish. One AgentExit.
    static int AwaitExit(Fd localSocket);

private:
    Fd socket;
};

// What a later agent brings.
struct Successor {
    FrontLine front;
    std::unique_ptr<platform::ByteStream> stream;
    Fd errors;            // its standard error
    std::string settings; // see MountSettings
};

// What two agents have to agree on to serve the same mount, as a text.
std::string MountSettings(const AgentOptions &options);

class HandOverSocket {
public:
    // Null when the socket can't be had; the path names the mount point.
    static std::unique_ptr<HandOverSocket> Listen(const std::string &mountPoint, std::string *error);
    ~HandOverSocket();
    HandOverSocket(const HandOverSocket &) = delete;
    HandOverSocket &operator=(const HandOverSocket &) = delete;

    int Descriptor() const { return socket.Get(); }
    // One that is there, when the descriptor can be read. Nothing for others than agents of this user.
    std::optional<Successor> Accept();

private:
    HandOverSocket(Fd listening, std::string socketPath)
        : socket(std::move(listening)), path(std::move(socketPath))
    {}
    const Fd socket;
    const std::string path;
};

} // namespace fodr::agent
