#include "Mailbox.h"
#include "platform/RegistryFixture.h"

namespace fodr::platform {
namespace {

using namespace std::string_literals;

TEST_F(Registry, APrivateStoreIsTheUsersWithFixedValues)
{
    settings.SetText("logLevel", "DEBUG");
    settings.SetNumber("RedirectAll", 1);
    settings.SetList("SharedFolders", {"C:\\"});
    EXPECT_EQ(Key(kPlugin + "\\below"s, true).error, kErrorSuccess); // no hindrance, and of no interest
    const std::vector<PrivateStore::FixedValue> fixed = {{"RedirectAll", kRegDword, "\0\0\0\0"s},
                                                         {"AllowedFolders", kRegMultiSz, "C:\\a\0\0"s},
                                                         {"SharedFolders", kRegNone, ""}};
    std::string error;
    auto store = PrivateStore::Create("", kPlugin, fixed, &error);
    ASSERT_TRUE(store) << error;
    const auto expectFixed = [](const std::string &logLevel) {
        const Key key(kPlugin);
        EXPECT_EQ(key.Value("logLevel"), logLevel + '\0');
        EXPECT_EQ(key.Value("RedirectAll"), "\0\0\0\0"s);
        EXPECT_EQ(key.Value("AllowedFolders"), "C:\\a\0\0"s);
        EXPECT_EQ(key.Value("SharedFolders"), "error 2");
    };
    expectFixed("DEBUG");
    test::Signal changed;
    store->Follow(changed.Setter());
    settings.SetText("logLevel", "TRACE");
    changed.Wait();
    ASSERT_TRUE(store->Update(fixed, &error)) << error;
    expectFixed("TRACE");
    store.reset();
}

} // namespace
} // namespace fodr::platform
