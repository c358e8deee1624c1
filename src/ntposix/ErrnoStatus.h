// NT statuses for errno values.
#pragma once

#include "platform/NtStatus.h"

namespace fodr::ntposix {

// For a failed call on a name or descriptor. An errno that isn't known is STATUS_UNSUCCESSFUL.
[[nodiscard]] nt::NTSTATUS StatusOfErrno(int error);

} // namespace fodr::ntposix
