// The library as a host finds it: loaded, by its exports, against a host of its own.
#include "SettingsFixture.h"
#include "odpservice/odpservice.h"
#include "platform/Process.h"
#include "plugin/RecordingHost.h"
#include "runtime/OVRegKey.h"

#include <filesystem>
#include <gtest/gtest.h>

namespace fodr {
namespace {

class Library : public testing::Test {
protected:
    void SetUp() override
    {
        std::string error;
        library = platform::DynamicLibrary::Load(FODR_PLUGIN_PATH, &error);
        ASSERT_TRUE(library) << error;
    }
    template <typename Function> Function Export(const char *name) { return library->Find<Function>(name); }
    // Of the plug-in's key; empty when there is none.
    static std::string Text(const std::string &name)
    {
        return ReadRegistryString("HKLM\\SOFTWARE\\Orvane, Inc.\\Orvane ODPService\\Plugins\\fodr\\" + name);
    }

    test::SettingsFixture settings;
    std::unique_ptr<platform::DynamicLibrary> library;
};

TEST_F(Library, TheTokenIsCutToTheBuffer)
{
    auto getToken = Export<ODPService_PluginGetTokenNameFn>(ODP_EXPORT_GET_TOKEN_NAME);
    ASSERT_NE(getToken, nullptr);
    char buffer[8] = "#######";
    EXPECT_TRUE(getToken(buffer, 3));
    EXPECT_STREQ(buffer, "fo");
    EXPECT_EQ(buffer[3], '#');
    EXPECT_TRUE(getToken(buffer, sizeof(buffer)));
    EXPECT_STREQ(buffer, "fodr");
}

TEST_F(Library, RegistersItselfAndTakesOnlyItselfOutAgain)
{
    auto registerServer = Export<DllRegisterServerFn>("DllRegisterServer");
    auto unregisterServer = Export<DllUnregisterServerFn>("DllUnregisterServer");
    EXPECT_EQ(unregisterServer(), 0); // nothing there yet
    EXPECT_EQ(registerServer(), 0);
    EXPECT_EQ(Text("tcpEnabled"), "true");
    EXPECT_TRUE(std::filesystem::path(Text("dll")).is_absolute());
    EXPECT_TRUE(std::filesystem::equivalent(Text("dll"), FODR_PLUGIN_PATH));
    EXPECT_EQ(unregisterServer(), 0);
    EXPECT_EQ(Text("tcpEnabled"), "");
}

TEST_F(Library, ServesAWholeHandshakeAndAFolderCommandOverItsChannel)
{
    settings.CreateKey(); // with no RedirectAll: no drive is shared
    test::RecordingHost host;
    auto init = Export<ODPService_PluginInitFn>(ODP_EXPORT_INIT);
    auto exit = Export<ODPService_PluginExitFn>(ODP_EXPORT_EXIT);
    auto create = Export<ODPService_PluginCreateInstanceFn>(ODP_EXPORT_CREATE_INSTANCE);
    auto destroy = Export<ODPService_PluginDestroyInstanceFn>(ODP_EXPORT_DESTROY_INSTANCE);

    void *instance = nullptr;
    EXPECT_FALSE(create(this, &instance)); // not initialised yet
    EXPECT_TRUE(init(host.Record()));
    ASSERT_TRUE(create(this, &instance));
    EXPECT_TRUE(host.Called("Subscribe FORLDER_REDIRECTION_CMD"));
    host.BringUp();

    // Two parameters, or none, reach nothing; an empty block is a packet all the same and is dropped.
    host.Deliver({"a", "b"});
    host.Deliver({});
    host.Deliver({""});
    using namespace std::string_literals;
    host.Deliver({"\x72\x44\x6E\x49\x01\x00\x0C\x00\x78\x56\x34\x12"s}); // server announce

    EXPECT_EQ(host.sent.Take(), "\x72\x44\x43\x43\x01\x00\x0C\x00\x78\x56\x34\x12"s);
    EXPECT_EQ(host.sent.Take(), "\xFE\xFF\x01\x00\x06\x00\x0C\x00"s);
    EXPECT_TRUE(host.lastWasPosted);

    EXPECT_FALSE(host.Command("c1", "SHARE,/tmp|x"));
    EXPECT_TRUE(destroy(instance));
    EXPECT_TRUE(host.Called("Unsubscribe 7"));
    EXPECT_EQ(host.liveMessages, 0);
    EXPECT_TRUE(exit());
    EXPECT_FALSE(create(this, &instance));
}

} // namespace
} // namespace fodr
