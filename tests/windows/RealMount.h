// Mounts that a test makes: there are none here.
#pragma once

#include "platform/Files.h"

#include <gtest/gtest.h>
#include <string>

namespace fodr::test {

class TmpfsMount {
public:
    explicit TmpfsMount(const std::string &) {}
    void Unmount() {}
};

// Sets a variable of the environment while it lives.
class EnvironmentVariable {
public:
    EnvironmentVariable(const char *variable, const char *value)
        : name(variable), previous(platform::GetEnvironment(variable))
    {
        platform::SetEnvironment(name, value);
    }
    ~EnvironmentVariable() { platform::SetEnvironment(name, previous); }
    EnvironmentVariable(const EnvironmentVariable &) = delete;
    EnvironmentVariable &operator=(const EnvironmentVariable &) = delete;

private:
    const char *name;
    std::string previous;
};

} // namespace fodr::test

#define FODR_NEEDS_MOUNTS() GTEST_SKIP() << "nothing is mounted on Windows"
