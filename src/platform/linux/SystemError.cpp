#include "platform/SystemError.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include <cerrno>
#include <cstring>

namespace fodr::platform {

namespace {

struct ErrorText {
    uint32_t code;
    const char *text;
};

constexpr ErrorText kOwnTexts[] = {
    {kErrorBadFormat, "Malformed path"},       {kErrorInvalidData, "Invalid data"},
    {kErrorGeneralFailure, "General failure"}, {kErrorBadPathname, "Invalid path"},
    {kErrorAlreadyExists, "Exists already"},   {kErrorMoreData, "More data available"},
    {kErrorNoMoreItems, "No more entries"},    {kErrorDirectory, "Invalid directory name"},
    {kErrorKeyDeleted, "The key was deleted"},
};

} // namespace

uint32_t LastSystemError()
{
    return SystemErrorFromErrno(errno);
}

std::string SystemErrorText(uint32_t code)
{
    for (const ErrorText &row : kOwnTexts) {
        if (row.code == code)
            return row.text;
    }
    for (const ErrnoError &row : kErrnoErrors) {
        if (row.code == code)
            return std::strerror(row.errnoValue);
    }
    return "Unknown error " + std::to_string(code);
}

} // namespace fodr::platform
