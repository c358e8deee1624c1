// How this process uses memory.
#pragma once

namespace fodr::platform {

// Large blocks that are freed stay with the process to be used again, instead of going back to the system and
// being cleared each time. For programs that hand large buffers around all the time. To be called at the
// start.
void KeepFreedMemory();

} // namespace fodr::platform
