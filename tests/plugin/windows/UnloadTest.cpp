#include "SettingsFixture.h"
#include "odpservice/odpservice.h"
#include "platform/Process.h"
#include "platform/windows/Win32.h"
#include "plugin/RecordingHost.h"

#include <gtest/gtest.h>

namespace fodr {
namespace {

TEST(Unload, AHostThatForgetsTheExitNeitherHangsNorPullsTheCodeAway)
{
    test::SettingsFixture settings;
    settings.CreateKey();
    test::RecordingHost host;
    std::string error;
    auto library = platform::DynamicLibrary::Load(FODR_PLUGIN_PATH, &error);
    ASSERT_TRUE(library) << error;
    EXPECT_TRUE(library->Find<ODPService_PluginInitFn>(ODP_EXPORT_INIT)(host.Record()));
    library.reset(); // while the log's thread runs
    EXPECT_NE(GetModuleHandleW(L"fodrClient.dll"), nullptr);

    library = platform::DynamicLibrary::Load(FODR_PLUGIN_PATH, &error);
    ASSERT_TRUE(library) << error;
    EXPECT_TRUE(library->Find<ODPService_PluginExitFn>(ODP_EXPORT_EXIT)());
    library.reset();
    EXPECT_EQ(GetModuleHandleW(L"fodrClient.dll"), nullptr);
}

} // namespace
} // namespace fodr
