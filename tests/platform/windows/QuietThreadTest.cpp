#include "Mailbox.h"
#include "platform/TaskPool.h"
#include "platform/Threads.h"
#include "platform/windows/Win32.h"

#include <gtest/gtest.h>

namespace fodr::platform {
namespace {

void TellMode(void *box)
{
    static_cast<test::Mailbox<DWORD> *>(box)->Put(GetThreadErrorMode());
}

// Else an empty drive would stop them with a box that asks for a disk.
TEST(OwnThreads, GetNoBoxesAndLeaveTheProcessItsMode)
{
    SetErrorMode(0);
    test::Mailbox<DWORD> modes;
    {
        TaskPool pool(0);
        ASSERT_TRUE(pool.Submit(TellMode, &modes));
        EXPECT_TRUE(modes.Take() & SEM_FAILCRITICALERRORS);
    }
    ThreadRecord *thread = StartThread(TellMode, &modes);
    ASSERT_NE(thread, nullptr);
    EXPECT_TRUE(JoinThread(thread));
    EXPECT_TRUE(modes.Take() & SEM_FAILCRITICALERRORS);
    EXPECT_EQ(GetErrorMode(), 0u);
}

} // namespace
} // namespace fodr::platform
