#include "rdpdr/ShareNames.h"

#include "platform/Volumes.h"

#include <gtest/gtest.h>

namespace fodr {
namespace {

TEST(ShareNames, NtFormOfAPath)
{
    const struct {
        const char *path, *ntPath;
    } cases[] = {
        {"C", "\\??\\C:"},
        {"C:", "\\??\\C:"},
        {"C:\\", "\\??\\C:"},
        {"C:\\data\\", "\\??\\C:\\data"},
        {"C:\\data\\\\", "\\??\\C:\\data\\"}, // one separator alone
        {"\\\\server\\share\\", "\\??\\UNC\\server\\share"},
        {"\\", "\\??\\\\:"},
        {"/home/me/docs", "\\??\\/home/me/docs"},
        {"/home/me/docs/", "\\??\\/home/me/docs"},
        {"/", "\\??\\"},
    };
    for (const auto &c : cases) {
        if (c.path[0] == '/' && !platform::IsLocalSeparator('/'))
            continue; // a path of another system
        EXPECT_EQ(ToNtPath(c.path), c.ntPath) << c.path;
    }
}

TEST(ShareNames, FriendlyNameOfAPathOrAWish)
{
    const struct {
        const char *path, *shareName, *name;
    } cases[] = {
        {"C:\\Users\\abc\\", "", "abc"},
        {"C:\\", "", "C"},
        {"C", "", "C"},
        {"/home/me/docs", "", "docs"},
        {"/home/me/docs//", "", "docs"},
        {"/", "", "_"},
        {":", "", "_"},
        {"::", "", "__"},
        {"/a/b?c*d", "", "b_c_d"},
        {"/x", "a/b", "a_b"},
        {"/x", "<>\"/\\|:?@*", "__________"},
        {"/x", "trailing  ", "trailing"},
        {"/x", "   ", "_"},
        {"/srv/(OVDND)drop", "", "(OV.DND)drop"},
        {"/srv/(OVFR)", "", "(OV.FR)"},
        {"/srv/(OVFCP)x", "", "(OV.FCP)x"},
        {"/srv/(ovdnd)x", "", "(ovdnd)x"},
    };
    for (const auto &c : cases) {
        if (c.path[0] == '/' && !*c.shareName && !platform::IsLocalSeparator('/'))
            continue;
        EXPECT_EQ(PlainFriendlyName(c.path, c.shareName), c.name) << c.path;
    }
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
