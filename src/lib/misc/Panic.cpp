#include "lib/misc/Panic.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace fodr {

void Panic(const char *format, ...)
{
    // One write, so that the words of two panicking threads don't mix.
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    fprintf(stderr, "Panic: %s", text);
    fflush(stderr);
    std::_Exit(1);
}

void PanicNotImplemented(const char *sourcePath, int line)
{
    Panic("NOT_IMPLEMENTED %s:%d\n", sourcePath, line);
}

void PanicNotReached(const char *sourcePath, int line)
{
    Panic("NOT_REACHED %s:%d\n", sourcePath, line);
}

void PanicVerify(const char *sourcePath, int line)
{
    Panic("VERIFY %s:%d\n", sourcePath, line);
}

} // namespace fodr
