// The only controls with an answer are the file system's, which on Windows don't come by this call.
#include "fileservice/FileCall.h"
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
    // However much room is asked for.
    EXPECT_EQ(
        file.Control(FSCTL_QUERY_ALLOCATED_RANGES, Little(0) + Little(5000), UINT32_MAX).At<uint64_t>(0), 0u);
}

TEST(DeviceControl, TellsWhatTheHostOffersAsDocumented)
{
    Share share;
    File file = share.Create(u"\\");
    Bytes request = WireExample("Host query");
    StoreLittle(request.data() + 8, file.Id());
    const Completion answer = share.Ask(request);
    EXPECT_EQ(answer.bytes, WireExample("Host query completion"));
    // The same of an entry that goes alone: without the byte of padding.
    share.Put("a", "");
    const FODR_LISTED_FILE listed = [&] {
        const Completion entry = file.List(FileBothDirectoryInformation, true, u"\\a");
        FODR_LISTED_FILE bytes;
        memcpy(&bytes, entry.Data().substr(69).data(), sizeof(bytes));
        return bytes;
    }();
    const Completion id = share.Create(u"\\a").Query(FileInternalInformation);
    EXPECT_EQ(listed.FileId, id.At<uint64_t>(0));
    EXPECT_EQ(listed.Links, 1u);
}

TEST(DeviceControl, SetsAModeAndMakesALinkAsDocumented)
{
    Share share;
    File file = share.Made("a", "");
    const auto text = [](const char *name) {
        const Bytes &bytes = WireExample(name);
        return std::string(bytes.begin(), bytes.end());
    };
    EXPECT_EQ(file.Control(FSCTL_FODR_SET_MODE, text("Modes"), 0).Status(), STATUS_SUCCESS);
    EXPECT_EQ(std::filesystem::status(share.folder / "a").permissions(), std::filesystem::perms(0755));
    EXPECT_EQ(file.Control(FSCTL_SET_REPARSE_POINT, text("Links, FIFOs, sockets"), 0).Status(),
              STATUS_SUCCESS);
    EXPECT_EQ(std::filesystem::read_symlink(share.folder / "a"), "d/file");
}

} // namespace
} // namespace fodr::test
