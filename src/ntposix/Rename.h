// FileRenameInformation, FileRenameInformationEx and FileLinkInformation. Any thread.
#pragma once

#include "ntposix/OpenFile.h"

#include <string_view>

namespace fodr::ntposix {

struct RenameRule {
    bool replace = false;
    bool posix = false;          // with `replace`: as rename(2)
    bool ignoreReadOnly = false; // a read-only file is replaced too
};

// Gives the file of the open the name, an absolute NT one. What stands there already:
//   the file itself (another case of its name)   the spelling changes
//   another link of the file, `replace`          the old name goes
//   another file, `replace`                      it is replaced in one step, if no one has it open
//   another file, not `replace`                  STATUS_OBJECT_NAME_COLLISION
//   a directory, a read-only file                STATUS_ACCESS_DENIED, or a collision as above
// STATUS_NOT_SAME_DEVICE across file systems; the source is untouched then. STATUS_FILE_DELETED when the name
// that was opened is the file's no more. A file that others put in its place in the very instant of the
// rename is what gets the new name.
[[nodiscard]] nt::NTSTATUS RenameFile(OpenFile &open, std::u16string_view target, bool replace);

// The same for one component in an open directory, which is STATUS_OBJECT_PATH_NOT_FOUND once others have
// removed it or moved it out of the share. With `posix` and `replace` it differs in what may go:
//   another link of the file                     success, and nothing happens
//   a file, whoever has it open                  it is replaced; who has it open goes on
//   an empty directory, by a directory           it is replaced; else STATUS_DIRECTORY_NOT_EMPTY
//   a directory, by a file; the reverse          STATUS_FILE_IS_A_DIRECTORY; STATUS_NOT_A_DIRECTORY
//   another file in another case of the name     STATUS_OBJECT_NAME_COLLISION, unless the case is to be exact
[[nodiscard]] nt::NTSTATUS RenameInto(OpenFile &open, OpenFile &directory, std::u16string_view leaf,
                                      RenameRule rule);

// Another name of the file, in an open directory as above. STATUS_OBJECT_NAME_COLLISION when something has
// the name. A link that was opened as itself gets the name itself.
[[nodiscard]] nt::NTSTATUS LinkInto(OpenFile &open, OpenFile &directory, std::u16string_view leaf);

// The file and what has the name in the open directory change places, in one step. What is open goes on
// under the other name.
[[nodiscard]] nt::NTSTATUS ExchangeWith(OpenFile &open, OpenFile &directory, std::u16string_view leaf);

} // namespace fodr::ntposix
