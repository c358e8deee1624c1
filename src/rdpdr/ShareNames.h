// Names of shares and the folders behind them. Any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace fodr {

// Names of shares: the tags that make a share one of a special kind, the NT form of its path, the name that
// the agent shows. Any thread.
// What a share is, by the tag that its name begins with.
enum class SharedType : int32_t {
    None = 0,
    FolderRedirection = 1, // "(OVFR)"
    DragAndDrop = 2,       // "(OVDND)"
    FileCopyPaste = 3,     // "(OVFCP)"
};

SharedType GetSharedType(const std::string &name);

// The root of a share as the NT file calls take it: "\??\C:" for "C" and "C:\", "\??\UNC\..." for "\\...",
// else "\??\" and the path, without one separator at its end. Request paths, which begin with a backslash,
// are appended to it.
//
// "/" gives a bare "\??\": nothing of it may be left, since "\??\/" and "\name" would make an empty component
// out of the two separators. "\??\\name" is the absolute name "\name", and the folder itself "\??\\".
std::string ToNtPath(const std::string &path);

// The name that a path or a wish for a name comes to, before it is made unique: the last component of `path`
// unless `shareName` is given, without characters that a name can't have, never empty and never tagged.
std::string PlainFriendlyName(const std::string &path, const std::string &shareName);

// The folders behind the shares' paths in NT form. Any thread; each call but the first may wait for a disk or
// a network.
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
