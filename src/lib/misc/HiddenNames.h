// Names that a mount shows to nobody: files that were removed while they were open, on hosts where a name
// stays as long as its file is open, and files on their way to being deleted.
#pragma once

#include <string_view>

namespace fodr {

inline constexpr std::string_view kHiddenPrefix = ".fodr-deleted-";

} // namespace fodr
