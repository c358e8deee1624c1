#include "platform/Volumes.h"

#include "platform/Process.h"
#include "platform/SystemError.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

namespace fodr::platform {
namespace {

namespace fs = std::filesystem;

struct Looked {
    uint32_t error;
    LinkKind kind;
};

Looked Look(const fs::path &path)
{
    LinkKind kind = LinkKind::File;
    const uint32_t error = QueryLinkKind(path.u16string(), kind);
    return {error, kind};
}

class LinkKinds : public testing::Test {
protected:
    void SetUp() override
    {
        fs::create_directories(scratch / "folder");
        std::ofstream(scratch / "file") << "1";
    }
    void TearDown() override { fs::remove_all(scratch); }

    const fs::path scratch =
        fs::path(testing::TempDir()) / ("fodr-links-" + std::to_string(CurrentProcessId()));
};

TEST_F(LinkKinds, AreThoseOfThePathItself)
{
    const struct {
        fs::path path;
        LinkKind kind;
        uint32_t error = kErrorSuccess;
    } rows[] = {
        {"C:\\", LinkKind::Directory},
        {scratch / "folder", LinkKind::Directory},
        {scratch / "folder\\", LinkKind::Directory},
        {scratch / "folder/\\", LinkKind::Directory},
        {scratch / "file", LinkKind::File},
        {scratch / "none", LinkKind::Missing, kErrorFileNotFound},
        {scratch / "none\\", LinkKind::Missing, kErrorFileNotFound},
        {scratch / "none\\below", LinkKind::Missing, kErrorPathNotFound},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(Look(row.path).error, row.error) << row.path;
        EXPECT_EQ(Look(row.path).kind, row.kind) << row.path;
    }
}

TEST_F(LinkKinds, ALinkIsOneWithASeparatorBehindIt)
{
    std::error_code failure;
    fs::create_directory_symlink("folder", scratch / "link", failure);
    if (failure || Look(scratch / "link").kind == LinkKind::Missing)
        GTEST_SKIP() << "no symbolic link can be made here";
    for (const char *name : {"link", "link\\", "link/\\"}) {
        std::u16string target;
        EXPECT_EQ(Look(scratch / name).kind, LinkKind::SymbolicLink) << name;
        EXPECT_EQ(ReadLinkTarget((scratch / name).u16string(), target), kErrorSuccess) << name;
        EXPECT_EQ(target, u"folder") << name;
    }
}

} // namespace
} // namespace fodr::platform
