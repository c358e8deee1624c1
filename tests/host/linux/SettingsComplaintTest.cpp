// A user's settings file that can't be read, under a running host.
#include "SettingsFixture.h"
#include "host/PrivateSettings.h"
#include "platform/Files.h"
#include "platform/Registry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace fodr::test {
namespace {

std::vector<std::string> complaints;

TEST(SettingsComplaint, ComesOncePerFault)
{
    complaints.clear();
    platform::SetRegistryComplaintHandler([](const char *text) {
        complaints.emplace_back(text);
        return true;
    });
    SettingsFixture user;
    user.Store("[[[\n");
    std::string error;
    auto settings = host::PrivateSettings::Create(user.Folder() + "/private", &error);
    ASSERT_TRUE(settings) << error;
    const std::pair<const char *, size_t> states[] = {
        {"[[[\n", 1}, {"[[[\n", 1}, {"[a]\nx=1\n", 1}, {"[a]\nnonsense\n", 2}, {"[a]\nx=dword:x\n", 3}};
    for (const auto &[store, count] : states) {
        user.Store(store);
        EXPECT_TRUE(settings->Refresh(&error)) << error;
        EXPECT_EQ(complaints.size(), count) << store;
    }
    EXPECT_THAT(complaints[0], testing::HasSubstr(user.Folder() + "/HKEY_LOCAL_MACHINE.ini is malformed"));
    settings.reset();
    platform::SetEnvironment("FODR_SETTINGS_DIR", user.Folder());
    platform::SetRegistryComplaintHandler(nullptr);
}

} // namespace
} // namespace fodr::test
