// How a child is started: what ChildProcess and ChildLauncher have in common.
#pragma once

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "lib/misc/Mutex.h"
#include "platform/ChildProcess.h"
#include "platform/linux/FdStream.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <thread>

namespace fodr::platform {

// The two sides of what a child is given: its standard input and output, and its standard error, each only if
// it was asked for.
struct ChildEnds {
    Fd ourStream, theirStream;
    Fd errorRead, errorWrite;

    // False with errno set.
    [[nodiscard]] bool Make(const ChildOptions &options);
};

// 0, or an errno. Descriptors that aren't valid are ours.
int SpawnChild(const ChildOptions &options, const Fd &stream, const Fd &errors, pid_t *pid);

// Reads lines until everybody has closed the pipe, or until it is stopped.
class LineReader {
public:
    LineReader(Fd readEnd, std::function<void(const std::string &)> handler);
    ~LineReader();
    LineReader(const LineReader &) = delete;
    LineReader &operator=(const LineReader &) = delete;

    // Null without a pipe.
    static std::unique_ptr<LineReader> Of(Fd readEnd, const std::function<void(const std::string &)> &handler)
    {
        return readEnd ? std::make_unique<LineReader>(std::move(readEnd), handler) : nullptr;
    }

private:
    void Main();
    void Take(char c, std::string *line);

    const Fd pipeFd;
    const Fd stopFd;
    const std::function<void(const std::string &)> onLine;
    std::thread thread;
};

// A child that was started. How it ends and how it is signalled is the derived class's, which calls End.
class StartedChild : public ChildProcess {
public:
    std::unique_ptr<ByteStream> TakeStream() override { return std::move(stream); }
    int Id() const override { return id; }
    std::optional<Exit> Wait(int timeoutMS) override;

protected:
    // Of the ends ours are kept.
    StartedChild(int childId, ChildEnds ends, const ChildOptions &options);
    ~StartedChild() override = default;
    void End(Exit exit) REQUIRES(lock);

    const int id;
    Mutex lock;
    std::optional<Exit> ended GUARDED_BY(lock);

private:
    std::unique_ptr<ByteStream> stream;
    std::unique_ptr<LineReader> errors;
    Condition changed;
};

} // namespace fodr::platform
