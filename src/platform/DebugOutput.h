// Texts for the developer that don't go through the log. Any thread; never fails towards the caller.
#pragma once

#include <cstddef>

namespace fodr::platform {

// To the system's debug channel: syslog, or an attached debugger. For failures before a log exists.
void DebugOutput(const char *text);

// To the standard error stream in a single write, so that lines of several threads don't mix.
void WriteStandardError(const char *text, size_t length);

} // namespace fodr::platform
