// What `fodr add` and its like say to a running host, and what it answers: lines of words over a local
// socket.
//
// A request is one line: a verb and its arguments. A reply is one line, the exit code and a sentence, and
// then rows of words. Words are separated by a tab; blanks, controls, '%' and bytes above 126 stand as %XX,
// so any path can be one. The connection carries one request and its reply.
#pragma once

#include "lib/misc/Mutex.h"
#include "platform/ByteStream.h"

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace fodr::host {

using Words = std::vector<std::string>;

struct ControlReply {
    int code = 0;         // exit code of the command that asked
    std::string sentence; // what went wrong, without "fodr: "; empty when nothing did
    std::vector<Words> rows;

    bool operator==(const ControlReply &) const = default;
};

inline constexpr size_t kMaxControlText = 1 << 20;

std::string EncodeWords(const Words &words);
// Nothing for a line that isn't made by EncodeWords.
std::optional<Words> DecodeWords(std::string_view line);

// Each sends or takes all of one side, and ends its part of the stream's use. False or nothing when the other
// side is gone, is too slow, or says something else.
bool SendRequest(platform::ByteStream *stream, const Words &request);
std::optional<Words> ReceiveRequest(platform::ByteStream *stream, int timeoutMS);
bool SendReply(platform::ByteStream *stream, const ControlReply &reply);
std::optional<ControlReply> ReceiveReply(platform::ByteStream *stream, int timeoutMS);

// The socket on which a running host takes commands, for its own user only.
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

// The runtime folder of this user's running hosts: each has a folder of its own there, named by its process
// id, with its control socket and its settings.
// This process's own folder, made anew; those that dead hosts have left are removed. Empty, with a few words
// in
// `*error`, when it can't be had.
std::string MakeHostFolder(std::string *error);
void RemoveHostFolder(const std::string &folder);

std::string ControlSocketOf(const std::string &hostFolder);

// A connection to the host of this process id, or, for 0, to the one that was started last. Null when none
// runs.
std::unique_ptr<platform::ByteStream> ConnectToHost(uint32_t processId);

} // namespace fodr::host
