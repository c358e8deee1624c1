// The folders behind the shares' paths in NT form. Any thread; each call but the first may wait for a disk or
// a network.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace fodr {

// Whether two paths that differ at most in the case of ASCII letters are the same text to this system. A
// drive's letter is the same in either case everywhere.
bool NtPathsEqual(std::string_view a, std::string_view b);

// Asked of the very calls that would serve the share, with the name matched as they will: `nameMatching` is 0
// or nt::OBJ_CASE_INSENSITIVE.
bool FolderExists(const std::string &ntPath, uint32_t nameMatching);

// Whether both paths lead to one folder that is there.
bool IsSameFolder(const std::string &a, const std::string &b);
// Whether both folders are there, under these very names, and aren't the same.
bool AreTwoFolders(const std::string &a, const std::string &b);

} // namespace fodr
