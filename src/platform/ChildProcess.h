// A process that this one starts and takes down.
#pragma once

#include "platform/ByteStream.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace fodr::platform {

struct ChildOptions {
    std::vector<std::string> arguments; // the first is the program, looked for in PATH without a separator
    std::vector<std::pair<std::string, std::string>> environment; // put on top of ours
    // Standard input and output become a stream to us; else they are ours.
    bool withStream = false;
    // Lines of its standard error go to this function, on a thread of their own, until the child and its
    // children have closed it; else standard error is ours. `line` is without its end and at most some
    // thousand bytes.
    std::function<void(const std::string &line)> onErrorLine;
    enum class Interrupts {
        Own,     // a group of its own: the terminal's Ctrl-C doesn't reach it, nor may it read the terminal
        Ignored, // our group, but Ctrl-C is ignored unless the program asks for it
        Shared,  // our group
    };
    Interrupts interrupts = Interrupts::Shared;
};

class ChildProcess {
public:
    struct Exit {
        bool bySignal = false;
        int code = 0; // exit status, or the signal's number
    };

    // Null when it couldn't be started, with the reason in `*error`.
    static std::unique_ptr<ChildProcess> Start(const ChildOptions &options, std::string *error);
    // Kills it if it runs, and waits for it and for the last error line.
    virtual ~ChildProcess() = default;
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    virtual std::unique_ptr<ByteStream> TakeStream() = 0;
    [[nodiscard]] virtual int Id() const = 0;
    // How it ended; nothing when it still runs after `timeoutMS` (-1: no limit). Any thread.
    virtual std::optional<Exit> Wait(int timeoutMS) = 0;
    virtual void Terminate() = 0; // asks
    virtual void Kill() = 0;

protected:
    ChildProcess() = default;
};

} // namespace fodr::platform
