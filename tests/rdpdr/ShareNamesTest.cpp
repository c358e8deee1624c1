#include "rdpdr/ShareNames.h"

#include "platform/Volumes.h"

#include <gtest/gtest.h>
#include <utility>

namespace fodr {
namespace {

TEST(ShareNames, APathHasAnNtFormAndAFriendlyName)
{
    const struct {
        const char *path, *ntPath, *name;
    } cases[] = {
        {"C", "\\??\\C:", "C"},
        {"C:", "\\??\\C:", "C"},
        {"C:\\", "\\??\\C:", "C"},
        {"C:\\data\\", "\\??\\C:\\data", "data"},
        {"C:\\data\\\\", "\\??\\C:\\data\\", "data"}, // one separator alone
        {"\\\\server\\share\\", "\\??\\UNC\\server\\share", "share"},
        {"\\", "\\??\\\\:", "_"},
        {":", "\\??\\::", "_"},
        {"::", "\\??\\::", "__"},
        {"/home/me/docs", "\\??\\/home/me/docs", "docs"},
        {"/home/me/docs/", "\\??\\/home/me/docs", "docs"},
        {"/home/me/docs//", "\\??\\/home/me/docs/", "docs"},
        {"/", "\\??\\", "_"},
        {"/a/b?c*d", "\\??\\/a/b?c*d", "b_c_d"},
    };
    for (const auto &c : cases) {
        if (c.path[0] == '/' && !platform::IsLocalSeparator('/'))
            continue; // a path of another system
        EXPECT_EQ(ToNtPath(c.path), c.ntPath) << c.path;
        EXPECT_EQ(PlainFriendlyName(c.path, ""), c.name) << c.path;
    }
}

TEST(ShareNames, AWishedNameIsMadeOneThatTheAgentTakes)
{
    const std::pair<const char *, const char *> cases[] = {
        {"a/b", "a_b"},
        {"<>\"/\\|:?@*", "__________"},
        {"trailing  ", "trailing"},
        {"   ", "_"},
        {"(OVDND)drop", "(OV.DND)drop"},
        {"(OVFR)", "(OV.FR)"},
        {"(OVFCP)x", "(OV.FCP)x"},
        {"(ovdnd)x", "(ovdnd)x"},
    };
    for (const auto &[wished, name] : cases)
        EXPECT_EQ(PlainFriendlyName("/x", wished), name) << wished;
}

TEST(ShareNames, TagsAreComparedWithCase)
{
    EXPECT_EQ(GetSharedType("(OVFR)x"), SharedType::FolderRedirection);
    EXPECT_EQ(GetSharedType("(OVDND)"), SharedType::DragAndDrop);
    EXPECT_EQ(GetSharedType("(OVFCP)x"), SharedType::FileCopyPaste);
    for (const char *name : {"", "x(OVFR)", "(ovfr)x", "(OV.FR)x", "(OVFR"})
        EXPECT_EQ(GetSharedType(name), SharedType::None) << name;
}

} // namespace
} // namespace fodr
