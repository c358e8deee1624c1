// The Windows headers in the order that they need, without the macros that rename our functions. To be
// included behind all headers of ours.
#pragma once

#ifndef _WIN32
#error "this folder is the Windows side"
#endif

#include <windows.h>
#include <winsock2.h>
#include <ws2tcpip.h>

#undef CreateEvent
#undef GetEnvironment
#undef GetFileAttributes
