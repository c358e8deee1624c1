// The end of an open file: what its close does, and the deletion that may come with the last one. Any thread.
#pragma once

#include "ntposix/OpenFile.h"

namespace fodr::ntposix {

enum class ReadOnlyFiles : uint8_t { kStay, kGo };

// Whether the file could be deleted by this open: STATUS_CANNOT_DELETE for a read-only file that stays and
// the root directory, STATUS_DIRECTORY_NOT_EMPTY, STATUS_ACCESS_DENIED where its directory may not be
// changed.
[[nodiscard]] nt::NTSTATUS CheckDeletable(const OpenFile &open,
                                          ReadOnlyFiles readOnly = ReadOnlyFiles::kStay);

// FileDispositionInformation: marks the file for deletion with its last handle, or takes the mark back.
[[nodiscard]] nt::NTSTATUS SetDisposition(OpenFile &open, bool deleteFile,
                                          ReadOnlyFiles readOnly = ReadOnlyFiles::kStay);

// The same for FILE_DELETE_ON_CLOSE of the one handle.
[[nodiscard]] nt::NTSTATUS SetDeleteOnClose(OpenFile &open, bool deleteFile, ReadOnlyFiles readOnly);

// Removes the opened name at once, even while others have the file open, as unlink(2) and rmdir(2) do. Their
// handles stay usable. STATUS_FILE_DELETED when it has that name no more.
[[nodiscard]] nt::NTSTATUS DeleteNow(OpenFile &open, ReadOnlyFiles readOnly);

// How many files and directories closing handles has deleted so far. Who is admitted to a file's object after
// the count has changed may have opened a file that is gone.
[[nodiscard]] uint64_t DeletionCount();

// What closing a handle does, on the closing thread: blocked calls end, locks fall, share modes end, and the
// file is deleted if it was the last handle of a name that is to go. The descriptor stays for calls that
// still use it.
void Cleanup(OpenFile &open);

} // namespace fodr::ntposix
