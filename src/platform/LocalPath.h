// How names in local paths compare. Any thread. What separates them is in Volumes.h.
#pragma once

#include <string_view>

namespace fodr::platform {

// Whether the system takes two UTF-8 texts for the same name: byte by byte on Linux, without case on Windows.
bool LocalNamesEqual(std::string_view a, std::string_view b);

} // namespace fodr::platform
