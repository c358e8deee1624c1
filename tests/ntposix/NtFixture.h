// A folder of its own for every test, which is a share with FODR_TEST_IN_SHARE in the environment, and the NT
// calls in words that a test likes to say.
#pragma once

#include "WholeFile.h"
#include "lib/unicode/CodeSet.h"
#include "platform/Nt.h"
#include "platform/NtRecords.h"

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <sys/stat.h>

namespace fodr::nt {

constexpr uint32_t kReadWrite = GENERIC_READ | GENERIC_WRITE;

struct OpenOptions {
    uint32_t access = GENERIC_READ; // SYNCHRONIZE is always asked for as well
    uint32_t disposition = FILE_OPEN;
    uint32_t options = 0;
    uint32_t share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    uint32_t attributes = 0;
    int64_t allocation = 0;
};

// The outcome of a create; closes what was opened.
class NtFile {
public:
    NtFile() = default;
    NtFile(std::u16string ntPath, const OpenOptions &how)
    {
        const auto bytes = static_cast<uint16_t>(ntPath.size() * sizeof(char16_t));
        UNICODE_STRING name{bytes, bytes, ntPath.data()};
        OBJECT_ATTRIBUTES object{sizeof(OBJECT_ATTRIBUTES), nullptr, &name,
                                 OBJ_CASE_INSENSITIVE,      nullptr, nullptr};
        IO_STATUS_BLOCK io{};
        LARGE_INTEGER allocation{how.allocation};
        HANDLE opened = nullptr;
        status = NtCreateFile(&opened, how.access | SYNCHRONIZE, &object, &io,
                              how.allocation ? &allocation : nullptr, how.attributes, how.share,
                              how.disposition, how.options | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
        information = io.Information;
        handle.reset(opened);
    }

    operator HANDLE() const { return handle.get(); }
    NTSTATUS Close() { return handle ? NtClose(handle.release()) : STATUS_SUCCESS; }

    NTSTATUS status = STATUS_UNSUCCESSFUL;
    uint64_t information = 0;

private:
    struct Closer {
        void operator()(HANDLE open) const { NtClose(open); }
    };
    std::unique_ptr<void, Closer> handle;
};

using NameSet = std::set<std::string>;

class NtFixture : public testing::Test {
protected:
    NtFixture()
    {
        std::string name = (std::filesystem::temp_directory_path() / "fodr-nt-XXXXXX").string();
        EXPECT_NE(mkdtemp(name.data()), nullptr);
        root = name;
        std::u16string share;
        if (std::getenv("FODR_TEST_IN_SHARE") && Utf8ToUtf16("\\??\\" + name, share))
            shareRoot.emplace(share, ShareRules{});
    }
    ~NtFixture() override
    {
        shareRoot.reset();
        std::error_code ignored;
        std::filesystem::remove_all(root, ignored);
    }

    // In the folder of the test; with no name the folder itself.
    std::string Path(std::string_view name) const { return (root / name).string(); }
    std::u16string NtPath(std::string_view name) const
    {
        std::u16string path;
        EXPECT_TRUE(Utf8ToUtf16("\\??\\" + root.string() + "\\" + std::string(name), path));
        return path;
    }
    NtFile Open(std::string_view name, const OpenOptions &how = {}) const { return {NtPath(name), how}; }
    NtFile Folder(std::string_view name) const { return Open(name, {.options = FILE_DIRECTORY_FILE}); }
    // To be deleted or renamed.
    NtFile Doomed(std::string_view name) const
    {
        return Open(name, {.access = GENERIC_READ | DELETE_ACCESS});
    }

    // What others do.
    void MakeFile(std::string_view name, std::string_view content = {}) const
    {
        std::ofstream(Path(name), std::ios::binary) << content;
    }
    void MakeReadOnly(std::string_view name) const
    {
        MakeFile(name, "old");
        EXPECT_EQ(chmod(Path(name).c_str(), 0444), 0);
    }
    void MakeFolder(std::string_view name) const { std::filesystem::create_directories(root / name); }
    void MakeSymlink(const char *target, std::string_view name) const
    {
        std::filesystem::create_symlink(target, root / name);
    }
    void OthersMove(const char *from, const char *to) const
    {
        std::filesystem::rename(root / from, root / to);
    }

    bool Exists(std::string_view name) const { return std::filesystem::exists(root / name); }
    std::string Content(std::string_view name) const { return test::ReadWholeFile(root / name); }
    NameSet Listing() const
    {
        NameSet names;
        for (const auto &entry : std::filesystem::directory_iterator(root))
            names.insert(entry.path().filename().string());
        return names;
    }

    std::filesystem::path root;
    std::optional<ShareRoot> shareRoot;
};

inline std::string Utf8(std::u16string_view text)
{
    std::string out;
    EXPECT_TRUE(Utf16ToUtf8(text, out));
    return out;
}

} // namespace fodr::nt
