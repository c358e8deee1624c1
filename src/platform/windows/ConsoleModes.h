// Settings of the user's console, which would outlive the program: each is put back at its end. Any thread.
#pragma once

#include "platform/windows/Win32.h"

namespace fodr::platform {

// What the program prints is taken for UTF-8.
void PrintUtf8();

// Whether the handle is a console that obeys escape sequences; before Windows 10 there is none.
bool ObeysEscapes(HANDLE output);

// At an end that runs no exit handlers. May be called again.
void PutConsoleBack();

} // namespace fodr::platform
