// Real mounts for tests: they need root, so a test asks first.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/mount.h>

namespace fodr::test {

// A folder of a test's own.
class ScratchFolder {
public:
    ScratchFolder()
    {
        std::string pattern = std::filesystem::temp_directory_path() / "fodr-mount-XXXXXX";
        folder = std::filesystem::canonical(mkdtemp(pattern.data()));
    }
    ~ScratchFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }
    ScratchFolder(const ScratchFolder &) = delete;
    ScratchFolder &operator=(const ScratchFolder &) = delete;

    std::string operator/(const std::string &name) const { return folder + "/" + name; }
    std::string MakeFolder(const std::string &name) const
    {
        std::filesystem::create_directories(folder + "/" + name);
        return folder + "/" + name;
    }
    const std::string &Path() const { return folder; }

private:
    std::string folder;
};

// A small tmpfs, unmounted at the end.
class TmpfsMount {
public:
    explicit TmpfsMount(const std::string &path) : target(path)
    {
        isMounted = mount("fodr-test", target.c_str(), "tmpfs", 0, "size=64k") == 0;
    }
    ~TmpfsMount() { Unmount(); }
    TmpfsMount(const TmpfsMount &) = delete;
    TmpfsMount &operator=(const TmpfsMount &) = delete;

    void Unmount()
    {
        if (isMounted)
            umount2(target.c_str(), MNT_DETACH);
        isMounted = false;
    }

    static bool IsAllowed()
    {
        ScratchFolder scratch;
        return TmpfsMount(scratch.MakeFolder("probe")).isMounted;
    }

private:
    std::string target;
    bool isMounted = false;
};

// Sets a variable of the environment while it lives; null takes it out.
class EnvironmentVariable {
public:
    EnvironmentVariable(const char *variable, const char *value) : name(variable)
    {
        const char *old = std::getenv(name);
        hadValue = old != nullptr;
        previous = old ? old : "";
        Set(value);
    }
    ~EnvironmentVariable() { Set(hadValue ? previous.c_str() : nullptr); }
    EnvironmentVariable(const EnvironmentVariable &) = delete;
    EnvironmentVariable &operator=(const EnvironmentVariable &) = delete;

private:
    void Set(const char *value)
    {
        if (value)
            setenv(name, value, 1);
        else
            unsetenv(name);
    }

    const char *name;
    bool hadValue;
    std::string previous;
};

} // namespace fodr::test

#define FODR_NEEDS_MOUNTS()                                                                                  \
    if (!fodr::test::TmpfsMount::IsAllowed())                                                                \
    GTEST_SKIP() << "this user may not mount"
