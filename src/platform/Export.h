// Marks the few functions that a shared library shows to the outside.
#pragma once

#if defined(_WIN32)
#define FODR_EXPORT extern "C" __declspec(dllexport)
#else
#define FODR_EXPORT extern "C" __attribute__((visibility("default")))
#endif
