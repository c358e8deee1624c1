#include "platform/Process.h"

#include "lib/unicode/CodeSet.h"
#include "platform/SystemError.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>

namespace fodr::platform {
namespace {

TEST(Process, NamesAreThoseOfTheSystem)
{
    char host[256] = {};
    ASSERT_EQ(gethostname(host, sizeof(host) - 1), 0);
    std::string name;
    ASSERT_TRUE(Utf16ToUtf8(ComputerName(), name));
    EXPECT_EQ(name, host);
    if (geteuid() == 0) {
        EXPECT_EQ(UserName(), "root");
    }
    EXPECT_EQ(CurrentProcessId(), static_cast<uint32_t>(getpid()));
    uint32_t session = kNoSession;
    EXPECT_TRUE(CurrentSessionId(session));
    EXPECT_NE(session, kNoSession);
}

TEST(Process, AModuleIsFoundByAnAddressInIt)
{
    const std::string program = std::filesystem::read_symlink("/proc/self/exe");
    static const int ours = 0;
    int onTheStack = 0;
    EXPECT_EQ(ModulePath(nullptr), program);
    EXPECT_EQ(ModulePath(&ours), program);
    EXPECT_EQ(ModulePath(&onTheStack), "");
    // Under a sanitizer getpid may be the program's own; this one nobody intercepts.
    const std::string library = ModulePath(dlsym(RTLD_NEXT, "gnu_get_libc_version"));
    EXPECT_EQ(std::filesystem::path(library).filename().string().substr(0, 4), "libc");
    EXPECT_TRUE(std::filesystem::path(library).is_absolute());
}

TEST(SystemError, HasWindowsNumbersAndTexts)
{
    const struct {
        int errnoValue;
        uint32_t code;
    } rows[] = {
        {0, 0},        {ENOENT, 2},      {ENOTDIR, 3},
        {EACCES, 5},   {EPERM, 5},       {EEXIST, 80},
        {ENOSPC, 112}, {ENOTEMPTY, 145}, {99999, kErrorGeneralFailure},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(SystemErrorFromErrno(row.errnoValue), row.code) << row.errnoValue;
        EXPECT_FALSE(SystemErrorText(row.code).empty());
    }
    std::ifstream missing("/nowhere/at all");
    EXPECT_EQ(LastSystemError(), kErrorFileNotFound);
    EXPECT_EQ(SystemErrorText(kErrorFileNotFound), "No such file or directory");
    EXPECT_EQ(SystemErrorText(kErrorMoreData), "More data available");
    EXPECT_EQ(SystemErrorText(4711), "Unknown error 4711");
}

} // namespace
} // namespace fodr::platform
