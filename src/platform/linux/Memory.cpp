#include "platform/Memory.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include <malloc.h>

namespace fodr::platform {

void KeepFreedMemory()
{
    constexpr int kLargestPooled = 32 << 20; // as large as the library allows
    constexpr int kKept = 256 << 20;
    mallopt(M_MMAP_THRESHOLD, kLargestPooled);
    mallopt(M_TRIM_THRESHOLD, kKept);
}

} // namespace fodr::platform
