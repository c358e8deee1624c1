#include "EndThread.h"

#include "platform/windows/Win32.h"

namespace fodr::test {

void EndThread()
{
    ExitThread(0);
}

} // namespace fodr::test
