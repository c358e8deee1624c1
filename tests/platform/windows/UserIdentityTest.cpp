#include "platform/windows/UserIdentity.h"

#include "platform/Files.h"
#include "platform/Process.h"
#include "platform/SystemError.h"
#include "platform/windows/HandleStream.h"

#include <aclapi.h>
#include <sddl.h>

#include <filesystem>
#include <gtest/gtest.h>
#include <regex>

namespace fodr::platform {
namespace {

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

} // namespace
} // namespace fodr::platform
