// A folder of its own for every test, and the NT calls in words that a test likes to say.
#pragma once

#include "lib/unicode/CodeSet.h"
#include "platform/Nt.h"
#include "platform/NtRecords.h"

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <utility>

namespace fodr::nt {

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
    NtFile(const std::u16string &ntPath, const OpenOptions &how)
    {
        std::u16string text = ntPath;
        const auto bytes = static_cast<uint16_t>(text.size() * sizeof(char16_t));
        UNICODE_STRING name{bytes, bytes, text.data()};
        OBJECT_ATTRIBUTES object{sizeof(OBJECT_ATTRIBUTES), nullptr, &name,
                                 OBJ_CASE_INSENSITIVE,      nullptr, nullptr};
        IO_STATUS_BLOCK io{};
        LARGE_INTEGER allocation{how.allocation};
        status = NtCreateFile(&handle, how.access | SYNCHRONIZE, &object, &io,
                              how.allocation ? &allocation : nullptr, how.attributes, how.share,
                              how.disposition, how.options | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
        information = io.Information;
    }
    NtFile(NtFile &&other) noexcept
        : status(other.status), information(other.information), handle(std::exchange(other.handle, nullptr))
    {}
    NtFile &operator=(NtFile &&other) noexcept
    {
        Close();
        status = other.status;
        information = other.information;
        handle = std::exchange(other.handle, nullptr);
        return *this;
    }
    ~NtFile() { Close(); }

    operator HANDLE() const { return handle; }
    NTSTATUS Close() { return handle ? NtClose(std::exchange(handle, nullptr)) : STATUS_SUCCESS; }

    NTSTATUS status = STATUS_UNSUCCESSFUL;
    uint64_t information = 0;

private:
    HANDLE handle = nullptr;
};

class NtFixture : public testing::Test {
protected:
    NtFixture()
    {
        std::string name = (std::filesystem::temp_directory_path() / "fodr-nt-XXXXXX").string();
        EXPECT_NE(mkdtemp(name.data()), nullptr);
        root = name;
    }
    ~NtFixture() override
    {
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

    void MakeFile(std::string_view name, std::string_view content = {}) const
    {
        std::ofstream(Path(name), std::ios::binary) << content;
    }
    void MakeFolder(std::string_view name) const { std::filesystem::create_directories(root / name); }

    std::filesystem::path root;
};

inline std::string Utf8(std::u16string_view text)
{
    std::string out;
    EXPECT_TRUE(Utf16ToUtf8(text, out));
    return out;
}

} // namespace fodr::nt
