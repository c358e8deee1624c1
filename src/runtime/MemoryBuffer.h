// A block of bytes that owns its malloc storage.
#pragma once

#include "lib/misc/ByteBuffer.h"

namespace fodr {

using MemoryBuffer = MallocBuffer;

} // namespace fodr
