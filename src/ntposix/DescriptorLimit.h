// The process's limit of open files. Any thread.
#pragma once

namespace fodr::ntposix {

// Raises the soft limit as far as the hard one and reason allow. False when there was nothing to raise.
[[nodiscard]] bool RaiseDescriptorLimit();

} // namespace fodr::ntposix
