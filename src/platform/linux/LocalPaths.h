// From the paths that the logic hands around to paths of the system.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace fodr::platform {

// `path` begins with a separator or a drive letter and a colon, is empty (the root), and may mix separators
// and names as a remote machine sees them. What the file calls open (src/ntposix) it resolves to the very
// same path, so that nothing that is decided by it is got around: two separators at the front are one, a
// stream suffix is no part of the name, and components are found without case where there is none of the
// exact name. What doesn't exist is left as it is written; ".." is what the system makes of it. `*local` is
// absolute and has no separator at its end but the root's. kErrorInvalidName or kErrorPathNotFound (no such
// drive) on failure.
uint32_t ResolveLocalPath(std::u16string_view path, std::string *local);

} // namespace fodr::platform
