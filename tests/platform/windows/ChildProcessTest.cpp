#include "platform/ChildProcess.h"

#include "platform/Process.h"
#include "platform/windows/Win32.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>

namespace fodr::platform {
namespace {

class StandardHandle {
public:
    StandardHandle(DWORD standard, HANDLE handle) : which(standard), before(GetStdHandle(standard))
    {
        SetStdHandle(which, handle);
    }
    ~StandardHandle() { SetStdHandle(which, before); }
    StandardHandle(const StandardHandle &) = delete;
    StandardHandle &operator=(const StandardHandle &) = delete;

private:
    const DWORD which;
    const HANDLE before;
};

TEST(ChildProcess, MayHaveOneHandleForOutputAndErrors)
{
    const std::string path = testing::TempDir() + "fodr-child-" + std::to_string(CurrentProcessId());
    {
        const OwnedHandle file(CreateFileA(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                           nullptr, CREATE_ALWAYS, 0, nullptr));
        const StandardHandle output(STD_OUTPUT_HANDLE, file.Get());
        const StandardHandle errors(STD_ERROR_HANDLE, file.Get());
        ChildOptions options;
        options.arguments = {"cmd.exe", "/c", "echo out& echo err 1>&2"};
        std::string error;
        const auto child = ChildProcess::Start(options, &error);
        ASSERT_TRUE(child) << error;
        child->Wait(-1);
    }
    std::ifstream file(path);
    const std::string text(std::istreambuf_iterator<char>(file), {});
    EXPECT_NE(text.find("out"), std::string::npos) << text;
    EXPECT_NE(text.find("err"), std::string::npos) << text;
    file.close();
    std::filesystem::remove(path);
}

} // namespace
} // namespace fodr::platform
