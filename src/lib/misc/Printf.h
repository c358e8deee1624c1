// Lets the compiler check the arguments of our own printf-like functions.
#pragma once

// Both count from 1, `this` included; 0 for a va_list.
#define FODR_PRINTF(formatIndex, firstArgument) __attribute__((format(printf, formatIndex, firstArgument)))
