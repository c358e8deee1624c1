// FileRenameInformation. Any thread.
#pragma once

#include "ntposix/OpenFile.h"

#include <string_view>

namespace fodr::ntposix {

// Gives the file of the open the name, an absolute NT one. What stands there already:
//   the file itself (another case of its name)   the spelling changes
//   another file, `replace`                      it is replaced in one step, if no one who has it open minds
//   another file, not `replace`                  STATUS_OBJECT_NAME_COLLISION
//   a directory, a read-only file                STATUS_ACCESS_DENIED, or a collision as above
// STATUS_NOT_SAME_DEVICE across file systems; the source is untouched then.
[[nodiscard]] nt::NTSTATUS RenameFile(OpenFile &open, std::u16string_view target, bool replace);

} // namespace fodr::ntposix
