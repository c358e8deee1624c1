// The calling thread ends here and now.
#pragma once

#include <pthread.h>

namespace fodr::test {

[[noreturn]] inline void EndThread()
{
    pthread_exit(nullptr);
}

} // namespace fodr::test
