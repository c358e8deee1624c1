#include "fileservice/Share.h"

#include <algorithm>

namespace fodr::test {
namespace {

using namespace nt;

std::string Narrow(const std::string &wide)
{
    std::string text;
    for (size_t i = 0; i + 1 < wide.size(); i += 2)
        text += wide[i];
    return text;
}

TEST(DirectoryControl, GivesOneEntryAnAnswerInWireForm)
{
    struct Case {
        uint32_t infoClass;
        uint32_t nameLengthOffset, nameOffset;
    };
    const Case kCases[] = {
        {FileDirectoryInformation, 60, 64},
        {FileFullDirectoryInformation, 60, 68},
        {FileBothDirectoryInformation, 60, 93},
        {FileNamesInformation, 8, 12},
    };
    Share share;
    share.Put("first.txt", "");
    share.Put("second.txt", "");
    for (const Case &test : kCases) {
        File root = share.Create(u"\\");
        std::vector<std::string> names;
        Completion entry = root.List(test.infoClass, true, u"\\*.txt");
        for (; entry.Status() == STATUS_SUCCESS; entry = root.List(test.infoClass, false)) {
            auto nameLength = entry.At<uint32_t>(test.nameLengthOffset);
            EXPECT_EQ(entry.Length(), test.nameOffset + nameLength);
            EXPECT_EQ(entry.Size(), 20 + entry.Length());
            names.push_back(Narrow(entry.Data().substr(test.nameOffset)));
        }
        EXPECT_EQ(entry.Status(), STATUS_NO_MORE_FILES);
        EXPECT_EQ(entry.Size(), 21u);
        std::sort(names.begin(), names.end());
        EXPECT_EQ(names, (std::vector<std::string>{"first.txt", "second.txt"})) << test.infoClass;
        root.Close();
    }
}

TEST(DirectoryControl, GivesManyNativeEntriesToAnAgentThatCanReadThem)
{
    Share share([](RedirectedDeviceSettings &settings) { settings.multiEntryDirectoryQuery = true; });
    for (int i = 0; i < 50; ++i)
        share.Put("file" + std::to_string(i), "");
    for (auto [infoClass, nameOffset] : {std::pair<uint32_t, size_t>{FileBothDirectoryInformation, 94},
                                         {FileFullDirectoryInformation, 68}}) {
        File root = share.Create(u"\\");
        Completion listing = root.List(infoClass, true, u"\\file*");
        ASSERT_EQ(listing.Status(), STATUS_SUCCESS);
        int count = 0;
        size_t at = 0;
        for (size_t next = 0;; at += next) {
            ++count;
            EXPECT_EQ(Narrow(listing.Data().substr(at + nameOffset, 8)), "file");
            next = listing.At<uint32_t>(at);
            if (next == 0)
                break;
        }
        EXPECT_EQ(count, 50);
        EXPECT_EQ(root.List(infoClass, false).Status(), STATUS_NO_MORE_FILES);
        root.Close();
    }
    // The other classes still give one entry.
    File root = share.Create(u"\\");
    Completion one = root.List(FileNamesInformation, true, u"\\file7");
    EXPECT_EQ(one.Length(), 12u + 10);
}

TEST(DirectoryControl, TakesThePatternFromBehindTheLastBackslash)
{
    Share share;
    share.Put("b.txt", "");
    for (auto [path, status] : {std::pair<const char16_t *, NTSTATUS>{u"\\b.txt", STATUS_SUCCESS},
                                {u"\\a\\c\\b.txt", STATUS_SUCCESS},
                                {u"b.txt", STATUS_SUCCESS},
                                {u"\\none", STATUS_NO_SUCH_FILE}}) {
        File folder = share.Create(u"\\");
        EXPECT_EQ(folder.List(FileNamesInformation, true, path).Status(), status);
    }
    File root = share.Create(u"\\");
    // No path, and one that ends in a backslash: no pattern.
    EXPECT_EQ(Narrow(root.List(FileNamesInformation, true).Data().substr(12)), ".");
    EXPECT_EQ(Narrow(root.List(FileNamesInformation, true, u"\\x\\").Data().substr(12)), ".");

    // A path stated longer than the packet is what the packet holds of it.
    std::string path = WireText(u"\\b.*").substr(0, 8);
    Bytes packet = share.Request(root.Id(), IRP_MJ_DIRECTORY_CONTROL, IRP_MN_QUERY_DIRECTORY,
                                 DR_DRIVE_QUERY_DIRECTORY_REQ{FileNamesInformation, 1, 0xFFFFFFFF}, path);
    File fresh = share.Create(u"\\");
    StoreLittle(packet.data() + 8, fresh.Id());
    EXPECT_EQ(Narrow(share.Ask(packet).Data().substr(12)), "b.txt");
}

TEST(DirectoryControl, AnswersUnknownMinorsAsNotImplemented)
{
    Share share;
    File root = share.Create(u"\\");
    for (uint32_t minor : {0u, 3u, 0xFFFFFFFFu}) {
        Bytes packet = share.Request(root.Id(), IRP_MJ_DIRECTORY_CONTROL, minor, DR_READ_REQ{});
        EXPECT_EQ(share.Ask(packet).Status(), STATUS_NOT_IMPLEMENTED);
    }
}

} // namespace
} // namespace fodr::test
