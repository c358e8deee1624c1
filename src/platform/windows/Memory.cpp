#include "platform/Memory.h"

#include "platform/windows/Win32.h"

namespace fodr::platform {

// The heap keeps what it is given back by itself, up to blocks of half a megabyte.
void KeepFreedMemory() {}

} // namespace fodr::platform
