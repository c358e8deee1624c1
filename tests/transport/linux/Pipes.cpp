#include "platform/linux/FdStream.h"
#include "transport/StreamKinds.h"

#include <fcntl.h>
#include <unistd.h>

namespace fodr::test {

StreamPair MakePipes()
{
    int there[2], back[2];
    EXPECT_EQ(pipe2(there, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(back, O_CLOEXEC), 0);
    return {platform::MakeFdStream(Fd(back[0]), Fd(there[1])),
            platform::MakeFdStream(Fd(there[0]), Fd(back[1]))};
}

} // namespace fodr::test
