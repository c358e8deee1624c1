// What a new process is started with, in the system's forms.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace fodr::platform {

// One text that the C library of the other side takes apart into these words again. False when one isn't
// text.
[[nodiscard]] bool JoinArguments(const std::vector<std::string> &arguments, std::wstring *line);

// Our environment with the additions on top, as a block for CreateProcessW.
[[nodiscard]] bool MakeEnvironment(const std::vector<std::pair<std::string, std::string>> &additions,
                                   std::wstring *block);

} // namespace fodr::platform
