// The socket on which a running host takes commands, for its own user only.
#pragma once

#include "host/ControlProtocol.h"
#include "lib/misc/Mutex.h"

#include <functional>
#include <list>
#include <memory>
#include <string>
#include <thread>

namespace fodr::host {

class ControlServer {
public:
    static constexpr size_t kMaxVisitors = 32; // one more is sent away

    // Called on a thread of the connection's own, if there can be one; several may run at once.
    using Handler = std::function<ControlReply(const Words &request)>;

    // Listens on the socket `path`. Null, with a few words in `*error`, when that isn't possible.
    static std::unique_ptr<ControlServer> Start(const std::string &path, Handler handler, std::string *error);
    // Ends listening and waits for handlers that run.
    ~ControlServer();
    ControlServer(const ControlServer &) = delete;
    ControlServer &operator=(const ControlServer &) = delete;

private:
    ControlServer(std::unique_ptr<platform::StreamListener> listening, Handler handling);
    struct Visitor {
        std::unique_ptr<platform::ByteStream> stream;
        std::thread thread;
        bool answering = false;
        bool served = false;
    };
    void AcceptMain();
    // The visitor, with a thread that serves it if one could be made; null when there are too many.
    Visitor *LetIn(std::unique_ptr<platform::ByteStream> stream) EXCLUDES(lock);
    void Serve(Visitor *visitor) EXCLUDES(lock);
    void EndWaiting() EXCLUDES(lock);

    const std::unique_ptr<platform::StreamListener> listener;
    const Handler handler;
    Mutex lock;
    std::list<Visitor> visitors GUARDED_BY(lock);
    std::thread acceptThread;
};

} // namespace fodr::host
