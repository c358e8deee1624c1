// The only controls with an answer are the file system's, which on Windows don't come by this call.
#include "fileservice/NtCalls.h"
#include "fileservice/Share.h"

#include <gtest/gtest.h>

namespace fodr::test {
namespace {

using namespace nt;

TEST(DeviceControl, CarriesItsDataBehindAZeroLength)
{
    Share share;
    File file = share.Made("a", std::string(5000, 'x'));
    Completion ranges = file.Control(FSCTL_QUERY_ALLOCATED_RANGES, Little(0) + Little(5000), 64);
    ASSERT_EQ(ranges.Status(), STATUS_SUCCESS);
    EXPECT_EQ(ranges.Length(), 0u);
    ASSERT_EQ(ranges.Size(), 20u + sizeof(FILE_ALLOCATED_RANGE_BUFFER));
    EXPECT_EQ(ranges.At<uint64_t>(0), 0u);
    EXPECT_GE(ranges.At<uint64_t>(8), 5000u);
}

} // namespace
} // namespace fodr::test
