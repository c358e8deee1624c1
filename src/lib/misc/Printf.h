// Lets the compiler check the arguments of our own printf-like functions.
#pragma once

// The rules of the C library that prints; a build whose compiler would take others by default says which.
#ifndef FODR_PRINTF_STYLE
#define FODR_PRINTF_STYLE printf
#endif

// Both count from 1, `this` included; 0 for a va_list.
#define FODR_PRINTF(formatIndex, firstArgument)                                                              \
    __attribute__((format(FODR_PRINTF_STYLE, formatIndex, firstArgument)))
