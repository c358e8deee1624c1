#include "platform/Threads.h"

#include <gtest/gtest.h>

namespace fodr::platform {
namespace {

TEST(ClosedHandle, IsNotTakenForItsSuccessor)
{
    const Waitable old = CreateEventObject(true, true, nullptr);
    EXPECT_TRUE(CloseWaitable(old));
    const Waitable successor = CreateEventObject(true, true, nullptr);
    EXPECT_NE(old, successor);
    EXPECT_EQ(WaitForWaitables(&old, 1, 0).status, WaitStatus::Failed);
    EXPECT_FALSE(SetEventObject(old) || ResetEventObject(old) || CloseWaitable(old) ||
                 DuplicateWaitable(old));
    EXPECT_TRUE(CloseWaitable(successor));
}

} // namespace
} // namespace fodr::platform
