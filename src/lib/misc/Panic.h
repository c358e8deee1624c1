// The end of the road: states that the program has no way on from. Any thread.
#pragma once

// Lets the compiler check the arguments of our own printf-like functions, by the rules of the C library that
// prints; a build whose compiler would take others by default says which.
#ifndef FODR_PRINTF_STYLE
#define FODR_PRINTF_STYLE printf
#endif

// Both count from 1, `this` included; 0 for a va_list.
#define FODR_PRINTF(formatIndex, firstArgument)                                                              \
    __attribute__((format(FODR_PRINTF_STYLE, formatIndex, firstArgument)))

namespace fodr {

// Writes "Panic: " and the text to the standard error stream and ends the process with exit code 1. Nothing
// is torn down: other threads may still be inside of what a destructor would pull away.
[[noreturn]] void Panic(const char *format, ...) FODR_PRINTF(1, 2);

// The three kinds, each naming where: "NOT_IMPLEMENTED %s:%d\n", "NOT_REACHED %s:%d\n", "VERIFY %s:%d\n".
[[noreturn]] void PanicNotImplemented(const char *sourcePath, int line);
[[noreturn]] void PanicNotReached(const char *sourcePath, int line);
[[noreturn]] void PanicVerify(const char *sourcePath, int line);

} // namespace fodr

#define FODR_VERIFY(condition) ((condition) ? (void)0 : ::fodr::PanicVerify(__FILE__, __LINE__))
