// Keys of the store as the tests of both twins look at them.
#pragma once

#include "SettingsFixture.h"
#include "platform/Registry.h"
#include "platform/SystemError.h"

#include <gtest/gtest.h>
#include <string>

namespace fodr::platform {

inline constexpr char kPlugin[] = "SOFTWARE\\Orvane, Inc.\\Orvane ODPService\\Plugins\\fodr";

struct Key {
    explicit Key(const std::string &path, bool create = false)
    {
        constexpr RegistryRoot kMachine = RegistryRoot::LocalMachine;
        error = create ? RegistryCreate(kMachine, path, kRegKeyAllAccess, &handle)
                       : RegistryOpen(kMachine, path, kRegKeyAllAccess, &handle);
    }
    ~Key()
    {
        if (handle)
            RegistryClose(handle);
    }
    Key(const Key &) = delete;
    Key &operator=(const Key &) = delete;
    // The bytes, or "error N".
    std::string Value(const std::string &name, bool wide = false, uint32_t *type = nullptr) const
    {
        uint32_t size = 0, failure = error;
        if (failure == kErrorSuccess)
            failure = RegistryQuery(handle, name, wide, type, nullptr, &size);
        if (failure != kErrorSuccess)
            return Error(failure);
        std::string bytes(size, '\0');
        EXPECT_EQ(RegistryQuery(handle, name, wide, nullptr, bytes.data(), &size), kErrorSuccess);
        return bytes;
    }
    uint32_t Set(const std::string &name, uint32_t type, const std::string &bytes, bool wide = false) const
    {
        return RegistrySet(handle, name, type, wide, bytes.data(), static_cast<uint32_t>(bytes.size()));
    }
    static std::string Error(uint32_t code) { return "error " + std::to_string(code); }

    RegistryKey handle = nullptr;
    uint32_t error;
};

class Registry : public testing::Test {
protected:
    test::SettingsFixture settings;
};

} // namespace fodr::platform
