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
    return {platform::MakeFdStream(platform::Fd(back[0]), platform::Fd(there[1])),
            platform::MakeFdStream(platform::Fd(there[0]), platform::Fd(back[1]))};
}

} // namespace fodr::test
