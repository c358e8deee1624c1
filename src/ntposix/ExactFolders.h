// Folders whose names hold in their very case: once such a folder is gone, no neighbour that differs in case
// is taken for it. Any thread.
#pragma once

#include <string>

namespace fodr::ntposix {

// A path as NtName gives it. As often as it was kept it has to be let go.
void KeepExact(const std::string &path);
void LetGo(const std::string &path);
[[nodiscard]] bool IsExactFolder(const std::string &path);

} // namespace fodr::ntposix
