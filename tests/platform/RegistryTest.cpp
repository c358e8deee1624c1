// What the settings files and the system's registry have in common.
#include "Mailbox.h"
#include "platform/RegistryFixture.h"

namespace fodr::platform {
namespace {

using namespace std::string_literals;

TEST_F(Registry, WhatIsSetIsReadBackInBothWidths)
{
    const Key key(kPlugin, true);
    ASSERT_EQ(key.error, kErrorSuccess);
    const struct {
        uint32_t type;
        std::string bytes;
        std::string wide;
    } rows[] = {
        {kRegSz, "\xC3\xA4;b\0"s, "\xE4\0;\0b\0\0\0"s},
        {kRegMultiSz, "a\0b\0\0"s, "a\0\0\0b\0\0\0\0\0"s},
        {kRegDword, "\1\2\3\4"s, "\1\2\3\4"s},
        {kRegQword, "\1\2\3\4\5\6\7\xFF"s, "\1\2\3\4\5\6\7\xFF"s},
        {kRegBinary, ""s, ""s},
        {kRegExpandSz, "a\nb\t\0"s, "a\0\n\0b\0\t\0\0\0"s},
        {kRegMultiSz, "\0"s, "\0\0"s},
        {kRegBinary, "\0\xFF\x7F"s, "\0\xFF\x7F"s}, // the last: its size is asked for below
    };
    for (const auto &row : rows) {
        for (const bool wide : {false, true}) {
            const std::string &bytes = wide ? row.wide : row.bytes;
            ASSERT_EQ(key.Set("Value", row.type, bytes, wide), kErrorSuccess);
            uint32_t type = kRegNone;
            EXPECT_EQ(key.Value("VALUE", false, &type), row.bytes);
            EXPECT_EQ(type, row.type);
            EXPECT_EQ(key.Value("value", true), row.wide);
        }
    }
    char room[3] = {'x', 'x', 'x'};
    uint32_t size = 2;
    EXPECT_EQ(RegistryQuery(key.handle, "Value", false, nullptr, room, &size), kErrorMoreData);
    EXPECT_EQ(size, 3U);
    EXPECT_EQ(room[0], 'x');
    EXPECT_EQ(RegistryQuery(key.handle, "VALUE", false, nullptr, room, &size), kErrorSuccess);
    EXPECT_EQ(key.Set("Value", kRegSz, "\xFF"), kErrorInvalidParameter);
    EXPECT_EQ(key.Set("", kRegSz, "unnamed\0"s), kErrorSuccess);
    EXPECT_EQ(key.Value(""), "unnamed\0"s);
    EXPECT_EQ(RegistryDeleteValue(key.handle, "value"), kErrorSuccess);
    EXPECT_EQ(RegistryDeleteValue(key.handle, "VALUE"), kErrorFileNotFound);
    EXPECT_EQ(key.Value("Value"), "error 2");
}

TEST_F(Registry, KeysAreFoundMadeAndRemovedOneByOne)
{
    EXPECT_EQ(Key(kPlugin).error, kErrorFileNotFound);
    EXPECT_EQ(Key(kPlugin, true).error, kErrorSuccess);
    EXPECT_EQ(Key("software\\ORVANE, inc.").error, kErrorSuccess);
    EXPECT_EQ(Key("SOFTWARE\\").error, kErrorSuccess);
    EXPECT_EQ(Key("SOFT").error, kErrorFileNotFound);
    EXPECT_EQ(Key("SOFTWARE\\Orvane, Inc.\\x").error, kErrorFileNotFound);
    EXPECT_EQ(Key("\xFF").error, kErrorInvalidParameter);
    const Key top("");
    const Key parent("SOFTWARE\\Orvane, Inc.\\Orvane ODPService\\Plugins");
    EXPECT_EQ(RegistryDelete(top.handle, "SOFTWARE"), kErrorAccessDenied);
    // The redirection ends with the fixture's key: what isn't below it is the machine's own.
    RegistryKey machine = nullptr;
    EXPECT_EQ(RegistryOpen(RegistryRoot::CurrentUser, kPlugin, kRegKeyRead, &machine), kErrorFileNotFound);
    const Key deleted(kPlugin);
    EXPECT_EQ(RegistryDelete(parent.handle, "FODR"), kErrorSuccess);
    EXPECT_EQ(deleted.Value("dll"), Key::Error(kErrorKeyDeleted));
    EXPECT_EQ(parent.Value("dll"), "error 2");
    EXPECT_EQ(RegistryDelete(parent.handle, "fodr"), kErrorFileNotFound);
    EXPECT_EQ(RegistryClose(nullptr), kErrorInvalidHandle);
}

TEST_F(Registry, TellsAChangeOnceForEachTimeItIsAsked)
{
    settings.SetNumber("n", 0);
    test::Signal told;
    const auto tell = [](void *context) { static_cast<test::Signal *>(context)->Set(); };
    Key key(kPlugin);
    for (uint32_t n = 1; n <= 20; ++n) {
        ASSERT_EQ(RegistryNotify(key.handle, false, kRegNotifyChangeLastSet, tell, &told), kErrorSuccess);
        settings.SetNumber("n", n);
        told.Wait();
    }
    settings.SetNumber("n", 0); // not asked for
    EXPECT_FALSE(told.IsSet());
    ASSERT_EQ(RegistryNotify(key.handle, true, kRegNotifyChangeName, tell, &told), kErrorSuccess);
    EXPECT_EQ(RegistryClose(key.handle), kErrorSuccess);
    key.handle = nullptr;
    EXPECT_EQ(RegistryNotify(nullptr, false, kRegNotifyChangeName, tell, &told), kErrorInvalidHandle);
}

} // namespace
} // namespace fodr::platform
