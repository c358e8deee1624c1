// The end of an open file: what its close does, and the deletion that may come with the last one. Any thread.
#pragma once

#include "ntposix/OpenFile.h"

namespace fodr::ntposix {

// Whether the file could be deleted by this open: STATUS_CANNOT_DELETE for a read-only file and the root
// directory, STATUS_DIRECTORY_NOT_EMPTY, STATUS_ACCESS_DENIED where its directory may not be changed.
[[nodiscard]] nt::NTSTATUS CheckDeletable(const OpenFile &open);

// FileDispositionInformation: marks the file for deletion with its last handle, or takes the mark back.
[[nodiscard]] nt::NTSTATUS SetDisposition(OpenFile &open, bool deleteFile);

// How many files and directories closing handles has deleted so far. Who is admitted to a file's object after
// the count has changed may have opened a file that is gone.
[[nodiscard]] uint64_t DeletionCount();

// What closing a handle does, on the closing thread: blocked calls end, locks fall, share modes end, and the
// file is deleted if it was the last handle of a name that is to go. The descriptor stays for calls that
// still use it.
void Cleanup(OpenFile &open);

} // namespace fodr::ntposix
