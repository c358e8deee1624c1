// How local paths are written and their names compare. Any thread. What separates them is in Volumes.h.
#pragma once

#include <string>
#include <string_view>

namespace fodr::platform {

// Whether the system takes two UTF-8 texts for the same name: byte by byte on Linux, without case on Windows.
bool LocalNamesEqual(std::string_view a, std::string_view b);

// A local path as the logic and remote machines write it: what their names can't hold stands for itself in
// other characters (lib/unicode/NameMapping.h). On Windows every path is in that form.
std::string PathInSharedForm(const std::string &localPath);

} // namespace fodr::platform
