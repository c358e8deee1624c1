// One-to-one mapping between POSIX file names, which are bytes, and NT names, which are UTF-16. Any thread.
//
// A name that is valid UTF-8 and free of what NT names can't hold is itself. The rest goes to private use:
//   " * < > ? | : \ and the controls 0x01 to 0x1F    U+F000 + character
//   bytes that aren't valid UTF-8                    U+F700 + byte
// A POSIX name that really holds one of those private code points has its bytes mapped as if they were not
// valid, so no two POSIX names share an NT name and every one can be listed, opened, renamed and deleted.
#pragma once

#include <string>
#include <string_view>

namespace fodr {

// The NT name of a POSIX name without '/' and NUL. Total and reversible.
std::u16string NtNameFromPosix(std::string_view name);
// The same behind what `out` holds already; at most one unit a byte.
void AppendNtName(std::string_view name, std::u16string &out);

// The POSIX name whose NT name this is. False, with `out` empty, for what NtNameFromPosix never gives: a lone
// surrogate, '/', NUL, a bare character of the list above, or private code points that stand for valid UTF-8.
[[nodiscard]] bool PosixNameFromNt(std::u16string_view name, std::string &out);

// The same for paths, component by component; empty components, a leading and a trailing separator stay. The
// NT side separates with '\' and, read, also with '/'; the POSIX side with '/'.
std::u16string NtPathFromPosix(std::string_view path);
[[nodiscard]] bool PosixPathFromNt(std::u16string_view path, std::string &out);

// Names that a mount shows to nobody: files that were removed while they were open, on hosts where a name
// stays as long as its file is open, and files on their way to being deleted.
inline constexpr std::string_view kHiddenPrefix = ".fodr-deleted-";

} // namespace fodr
