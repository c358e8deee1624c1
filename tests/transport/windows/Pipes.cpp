#include "platform/windows/HandleStream.h"
#include "transport/StreamKinds.h"

namespace fodr::test {

StreamPair MakePipes()
{
    platform::OwnedHandle ourRead, theirWrite, ourWrite, theirRead;
    EXPECT_TRUE(platform::MakePipe(platform::PipeUse::WeRead, false, &ourRead, &theirWrite));
    EXPECT_TRUE(platform::MakePipe(platform::PipeUse::WeWrite, false, &ourWrite, &theirRead));
    return {std::make_unique<platform::HandleStream>(platform::MakePipeEnd(std::move(ourRead), false),
                                                     platform::MakePipeEnd(std::move(ourWrite), false)),
            std::make_unique<platform::HandleStream>(platform::MakePipeEnd(std::move(theirRead), true),
                                                     platform::MakePipeEnd(std::move(theirWrite), true))};
}

} // namespace fodr::test
