#include "platform/windows/ConsoleModes.h"

#include "platform/windows/Win32.h"

#include <gtest/gtest.h>

namespace fodr::platform {
namespace {

TEST(ConsoleModes, ArePutBack)
{
    const bool own = AllocConsole(); // fails when the tests have one
    {
        const OwnedHandle output(CreateFileW(L"CONOUT$", GENERIC_READ | GENERIC_WRITE,
                                             FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                                             nullptr));
        DWORD before = 0;
        DWORD mode = 0;
        if (!GetConsoleMode(output.Get(), &before))
            GTEST_SKIP() << "there is no console";
        const UINT codePage = GetConsoleOutputCP();
        SetConsoleMode(output.Get(), before & ~DWORD{ENABLE_VIRTUAL_TERMINAL_PROCESSING});
        GetConsoleMode(output.Get(), &before);

        PrintUtf8();
        EXPECT_EQ(GetConsoleOutputCP(), UINT{CP_UTF8});
        if (ObeysEscapes(output.Get())) { // since Windows 10
            EXPECT_TRUE(ObeysEscapes(output.Get()));
            GetConsoleMode(output.Get(), &mode);
            EXPECT_TRUE(mode & ENABLE_VIRTUAL_TERMINAL_PROCESSING);
        }
        PutConsoleBack();
        EXPECT_EQ(GetConsoleOutputCP(), codePage);
        GetConsoleMode(output.Get(), &mode);
        EXPECT_EQ(mode, before);
    }
    if (own)
        FreeConsole();
    EXPECT_FALSE(ObeysEscapes(nullptr));
}

} // namespace
} // namespace fodr::platform
