#include "platform/Process.h"

#include "Mailbox.h"
#include "platform/ByteStream.h"
#include "platform/ChildProcess.h"
#include "platform/Files.h"
#include "platform/SystemError.h"
#include "platform/TaskPool.h"
#include "platform/Threads.h"
#include "platform/windows/ConsoleModes.h"
#include "platform/windows/HandleStream.h"
#include "platform/windows/UserIdentity.h"
#include "platform/windows/Win32.h"

#include <aclapi.h>
#include <sddl.h>

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <regex>
#include <thread>

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

// Who may do what, in the system's own text.
std::string AccessTo(const OwnedHandle &object, SE_OBJECT_TYPE type)
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    char *text = nullptr;
    EXPECT_EQ(GetSecurityInfo(object.Get(), type, DACL_SECURITY_INFORMATION, nullptr, nullptr, nullptr,
                              nullptr, &descriptor),
              DWORD{ERROR_SUCCESS});
    EXPECT_TRUE(ConvertSecurityDescriptorToStringSecurityDescriptorA(
        descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text, nullptr));
    const std::string access(text);
    LocalFree(text);
    LocalFree(descriptor);
    return access;
}

// Everything to two accounts, of which one may be the system, and nothing to a group such as everybody.
const std::regex kTwoAlone(R"(D:[A-Z]*(\(A;[A-Z]*;(GA|FA);;;(LA|SY|S-1-5-[-0-9]+)\)){2})");

TEST(ThisUserOnly, HoldsForPipesAndOwnFolders)
{
    OwnedHandle ours, theirs;
    ASSERT_TRUE(MakePipe(PipeUse::Duplex, false, &ours, &theirs));
    const std::string pipe = AccessTo(ours, SE_KERNEL_OBJECT);
    EXPECT_TRUE(std::regex_match(pipe, kTwoAlone)) << pipe;

    const std::string path = testing::TempDir() + "fodr-own-" + std::to_string(CurrentProcessId());
    EXPECT_EQ(CreateFolder(path), kErrorSuccess);
    EXPECT_EQ(CreateFolder(path), kErrorAlreadyExists);
    const OwnedHandle folder(CreateFileA(path.c_str(), READ_CONTROL, 7, nullptr, OPEN_EXISTING,
                                         FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    const std::string access = AccessTo(folder, SE_FILE_OBJECT);
    EXPECT_TRUE(std::regex_match(access, kTwoAlone)) << access;
    std::filesystem::remove(path);
}

void TellMode(void *box)
{
    static_cast<test::Mailbox<DWORD> *>(box)->Put(GetThreadErrorMode());
}

// Else an empty drive would stop them with a box that asks for a disk.
TEST(OwnThreads, GetNoBoxesAndLeaveTheProcessItsMode)
{
    SetErrorMode(0);
    test::Mailbox<DWORD> modes;
    {
        TaskPool pool(0);
        ASSERT_TRUE(pool.Submit(TellMode, &modes));
        EXPECT_TRUE(modes.Take() & SEM_FAILCRITICALERRORS);
    }
    ThreadRecord *thread = StartThread(TellMode, &modes);
    ASSERT_NE(thread, nullptr);
    EXPECT_TRUE(JoinThread(thread));
    EXPECT_TRUE(modes.Take() & SEM_FAILCRITICALERRORS);
    EXPECT_EQ(GetErrorMode(), 0u);
}

TEST(LocalSockets, APeerThatLeavesBeforeItIsTakenDoesntEndTheListening)
{
    const std::string path = testing::TempDir() + "fodr-left-" + std::to_string(CurrentProcessId());
    std::string error;
    const auto listener = ListenLocal(path, &error);
    ASSERT_TRUE(listener) << error;
    for (int n = 0; n < 3; ++n) {
        std::thread client([&] {
            const std::byte word[4] = {};
            const ByteView block = word;
            auto hasty = ConnectLocal(path, nullptr);
            EXPECT_TRUE(hasty && hasty->Write({&block, 1}));
        });
        client.join();
        const auto peer = listener->Accept();
        ASSERT_TRUE(peer) << n;
        std::byte buffer[10];
        EXPECT_EQ(peer->Read(buffer), 4);
        EXPECT_LE(peer->Read(buffer), 0);
    }
    EXPECT_FALSE(listener->Accept(1));
    const auto last = ConnectLocal(path, &error);
    EXPECT_TRUE(last) << error;
    EXPECT_TRUE(listener->Accept());
    listener->Shutdown();
    EXPECT_FALSE(listener->Accept());
}

TEST(Pipes, AnEmptyWriteIsNotTheirEnd)
{
    OwnedHandle ours, theirs;
    ASSERT_TRUE(MakePipe(PipeUse::WeRead, true, &ours, &theirs));
    HandleStream stream(MakePipeEnd(std::move(ours), false), nullptr);
    std::byte buffer[10];
    DWORD written = 0;
    EXPECT_TRUE(WriteFile(theirs.Get(), "", 0, &written, nullptr));
    EXPECT_EQ(stream.Read(buffer, 1), ByteStream::kTimedOut);
    EXPECT_TRUE(WriteFile(theirs.Get(), "", 0, &written, nullptr));
    EXPECT_TRUE(WriteFile(theirs.Get(), "word", 4, &written, nullptr));
    EXPECT_EQ(stream.Read(buffer, ByteStream::kNoTimeout), 4);
    theirs.Reset();
    EXPECT_EQ(stream.Read(buffer, ByteStream::kNoTimeout), ByteStream::kEnd);
}

} // namespace
} // namespace fodr::platform
