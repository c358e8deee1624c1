// Names of shares: the tags that make a share one of a special kind, the NT form of its path, the name that
// the agent shows. Any thread.
#pragma once

#include <cstdint>
#include <string>

namespace fodr {

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

} // namespace fodr
