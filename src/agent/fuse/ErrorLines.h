// What is written to the standard error stream for a while, the lines of helper programs included.
#pragma once

#include "platform/linux/FdStream.h"

#include <string>

namespace fodr::agent {

// From its making on the stream goes to memory. One at a time; what other threads write meanwhile is kept
// too.
class ErrorLines {
public:
    ErrorLines();
    ~ErrorLines() { Take(); }
    ErrorLines(const ErrorLines &) = delete;
    ErrorLines &operator=(const ErrorLines &) = delete;

    // Gives the stream back and shows there what has come. The last line of it, without its writer's name.
    std::string Take();

private:
    Fd original; // the stream; none: it isn't redirected
    Fd memory;
};

} // namespace fodr::agent
