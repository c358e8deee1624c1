// What comes of a line when there is no memory for its record.
#include "logging/Logger.h"
#include "logging/LoggerManager.h"
#include "logging/MemorySink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <new>

namespace {

thread_local int allocationsToRefuse = 0;

} // namespace

// Of those that say that they can be refused.
void *operator new(size_t size, const std::nothrow_t &) noexcept
{
    if (allocationsToRefuse > 0) {
        --allocationsToRefuse;
        return nullptr;
    }
    try {
        return ::operator new(size);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

namespace fodr {
namespace {

TEST(ShortMemory, TheNextWriterGetsTheWholeLine)
{
    const RCPtr<Logger> logger = new Logger("short", "short");
    const RCPtr<test::MemorySink> first = new test::MemorySink(LOG_WRITER_DEBUG);
    const RCPtr<test::MemorySink> second = new test::MemorySink(LOG_WRITER_STDERR);
    ASSERT_TRUE(logger->AddWriter(first) && logger->AddWriter(second) && logger->Start());
    first->TakeText();
    second->TakeText();
    allocationsToRefuse = 1;
    LogWriteTo(logger, "F()", LOG_LEVEL_INFO, "%d %s %d %s", 1, "two", 3, "four");
    EXPECT_EQ(0, allocationsToRefuse);
    EXPECT_EQ("", first->TakeText());
    EXPECT_THAT(second->TakeText(), testing::EndsWith(" F(): 1 two 3 four\n"));
    logger->Stop();
    LoggerManager::Instance().Shutdown();
}

} // namespace
} // namespace fodr
