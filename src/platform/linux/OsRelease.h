// The file by which a distribution names itself: os-release(5).
#pragma once

#include <istream>
#include <string>

namespace fodr::platform {

// Without the quotes and escapes of a shell. Empty when there is no such key.
std::string OsReleaseValue(std::istream &file, const std::string &key);

} // namespace fodr::platform
