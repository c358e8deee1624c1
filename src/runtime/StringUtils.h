// Small text helpers: printing that cuts rather than fails, paths, conversion. No shared state; any thread.
#pragma once

#include "lib/misc/Panic.h"

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>

namespace fodr::StringUtils {

// As snprintf, but the result is the length stored: at most size - 1. Negative on an error of the format. The
// wide form takes the same UTF-8 format and stores UTF-16; a text that isn't valid UTF-8 is an error.
int FormatBuffer(char *buffer, size_t size, const char *format, ...) FODR_PRINTF(3, 4);
int FormatBufferV(char *buffer, size_t size, const char *format, va_list arguments) FODR_PRINTF(3, 0);
int FormatBuffer(char16_t *buffer, size_t size, const char *format, ...) FODR_PRINTF(3, 4);
int FormatBufferV(char16_t *buffer, size_t size, const char *format, va_list arguments) FODR_PRINTF(3, 0);

// A text of any length; empty on an error of the format.
std::string Format(const char *format, ...) FODR_PRINTF(1, 2);
std::string FormatV(const char *format, va_list arguments) FODR_PRINTF(1, 0);

// False for a null argument and for a suffix that is longer than the text. Without case means ASCII letters.
bool EndsWith(const char *text, const char *suffix, bool caseSensitive);

// `name` alone for an empty folder; otherwise with the system's separator between them, unless one is there.
std::string JoinPath(const std::string &folder, const std::string &name);
// Cut at the last '/' or '\'. "." for a path without one; the separator of a root stays: "/", "C:\".
std::string ParentPath(const std::string &path);

inline constexpr uint32_t kOutOfMemory = 14;            // MS-ERREF 2.2: ERROR_OUTOFMEMORY
inline constexpr uint32_t kInvalidParameter = 87;       // ERROR_INVALID_PARAMETER
inline constexpr uint32_t kNoUnicodeTranslation = 1113; // ERROR_NO_UNICODE_TRANSLATION

// 0 or a Windows error code. `*out` receives a terminated block that the caller frees; null on failure.
uint32_t Utf8ToWide(const char *text, char16_t **out);
uint32_t WideToUtf8(const char16_t *text, char **out);

} // namespace fodr::StringUtils
