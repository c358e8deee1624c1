// Texts for the developer that don't go through the log. Any thread; never fails towards the caller, also
// when nobody reads the stream any more.
#pragma once

#include <cstddef>

namespace fodr::platform {

// To the system's debug channel: syslog, or an attached debugger. For failures before a log exists.
void DebugOutput(const char *text);

// To the standard error stream in a single write, so that lines of several threads don't mix.
void WriteStandardError(const char *text, size_t length);

// To the standard output stream, behind what the process has put there, and out of its buffer at once.
void WriteStandardOutput(const char *text);

} // namespace fodr::platform
