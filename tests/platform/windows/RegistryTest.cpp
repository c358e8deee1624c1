#include "platform/Registry.h"

#include "Mailbox.h"
#include "SettingsFixture.h"
#include "platform/SystemError.h"

#include <gtest/gtest.h>
#include <string>

namespace fodr::platform {
namespace {

using namespace std::string_literals;

constexpr char kPlugin[] = "SOFTWARE\\Orvane, Inc.\\Orvane ODPService\\Plugins\\fodr";
constexpr RegistryRoot kMachine = RegistryRoot::LocalMachine;

struct Key {
    explicit Key(const std::string &path, bool create = false)
    {
        error = create ? RegistryCreate(kMachine, path, kRegKeyAllAccess, &handle)
                       : RegistryOpen(kMachine, path, kRegKeyAllAccess, &handle);
    }
    ~Key()
    {
        if (handle)
            RegistryClose(handle);
    }
    // The bytes, or "error N".
    std::string Value(const std::string &name, bool wide = false) const
    {
        uint32_t size = 0;
        if (const uint32_t failure = RegistryQuery(handle, name, wide, nullptr, nullptr, &size))
            return "error " + std::to_string(failure);
        std::string bytes(size, '\0');
        EXPECT_EQ(RegistryQuery(handle, name, wide, nullptr, bytes.data(), &size), kErrorSuccess);
        return bytes;
    }

    RegistryKey handle = nullptr;
    uint32_t error;
};

class Registry : public testing::Test {
protected:
    test::SettingsFixture settings;
};

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
        {kRegBinary, "\0\xFF\x7F"s, "\0\xFF\x7F"s},
    };
    for (const auto &row : rows) {
        for (const bool wide : {false, true}) {
            const std::string &bytes = wide ? row.wide : row.bytes;
            ASSERT_EQ(RegistrySet(key.handle, "Value", row.type, wide, bytes.data(),
                                  static_cast<uint32_t>(bytes.size())),
                      kErrorSuccess);
            EXPECT_EQ(key.Value("VALUE"), row.bytes);
            EXPECT_EQ(key.Value("value", true), row.wide);
        }
    }
    char room[3] = {'x', 'x', 'x'};
    uint32_t size = 2;
    EXPECT_EQ(RegistryQuery(key.handle, "Value", false, nullptr, room, &size), kErrorMoreData);
    EXPECT_EQ(size, 3U);
    EXPECT_EQ(room[0], 'x');
    EXPECT_EQ(RegistrySet(key.handle, "Value", kRegSz, false, "\xFF", 1), kErrorInvalidParameter);
    EXPECT_EQ(RegistryDeleteValue(key.handle, "value"), kErrorSuccess);
    EXPECT_EQ(key.Value("Value"), "error 2");
}

TEST_F(Registry, KeysAreFoundMadeAndRemovedOneByOne)
{
    EXPECT_EQ(Key(kPlugin).error, kErrorFileNotFound);
    EXPECT_EQ(Key(kPlugin, true).error, kErrorSuccess);
    EXPECT_EQ(Key("software\\ORVANE, inc.").error, kErrorSuccess);
    EXPECT_EQ(Key("\xFF").error, kErrorInvalidParameter);
    const Key top("");
    const Key parent("SOFTWARE\\Orvane, Inc.\\Orvane ODPService\\Plugins");
    EXPECT_EQ(RegistryDelete(top.handle, "SOFTWARE"), kErrorAccessDenied);
    EXPECT_EQ(RegistryDelete(parent.handle, "FODR"), kErrorSuccess);
    EXPECT_EQ(RegistryDelete(parent.handle, "fodr"), kErrorFileNotFound);
    EXPECT_EQ(RegistryClose(nullptr), kErrorInvalidHandle);
    // The redirection ends with the fixture's key: what isn't below it is the machine's own.
    RegistryKey machine = nullptr;
    EXPECT_EQ(RegistryOpen(RegistryRoot::CurrentUser, kPlugin, kRegKeyRead, &machine), kErrorFileNotFound);
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
