// A text that a whole regular expression matches: not every system's GoogleTest has more than a few signs of
// them.
#pragma once

#include <gmock/gmock.h>
#include <regex>
#include <string>

namespace fodr::test {

inline auto MatchesPattern(const std::string &pattern)
{
    return testing::Truly(
        [pattern](const std::string &text) { return std::regex_match(text, std::regex(pattern)); });
}

} // namespace fodr::test
