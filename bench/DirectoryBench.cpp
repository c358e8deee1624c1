// Listing a folder of 5,000 files as a request does it, with 64 KiB buffers, against readdir and fstatat.
#include "lib/unicode/CodeSet.h"
#include "platform/Nt.h"
#include "platform/NtRecords.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <benchmark/benchmark.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <sys/stat.h>

namespace {

using namespace fodr::nt;

constexpr int kFiles = 5000;

// Made once, removed at the end of the program.
class BigFolder {
public:
    BigFolder()
    {
        std::string name = (std::filesystem::temp_directory_path() / "fodr-bench-XXXXXX").string();
        path = mkdtemp(name.data());
        for (int i = 0; i < kFiles; ++i)
            std::ofstream(path / ("document number " + std::to_string(i) + ".txt")) << i;
    }
    ~BigFolder() { std::filesystem::remove_all(path); }
    static const BigFolder &Get()
    {
        static const BigFolder folder;
        return folder;
    }

    std::filesystem::path path;
};

HANDLE OpenFolder(const std::filesystem::path &path)
{
    std::u16string text;
    if (!fodr::Utf8ToUtf16("\\??\\" + path.string(), text))
        return nullptr;
    const auto bytes = static_cast<uint16_t>(text.size() * sizeof(char16_t));
    UNICODE_STRING name{bytes, bytes, text.data()};
    OBJECT_ATTRIBUTES object{sizeof(OBJECT_ATTRIBUTES), nullptr, &name,
                             OBJ_CASE_INSENSITIVE,      nullptr, nullptr};
    IO_STATUS_BLOCK io{};
    HANDLE handle = nullptr;
    NtCreateFile(&handle, FILE_LIST_DIRECTORY | SYNCHRONIZE, &object, &io, nullptr, 0, FILE_SHARE_READ,
                 FILE_OPEN, FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    return handle;
}

void ListByNtCalls(benchmark::State &state)
{
    const auto infoClass = static_cast<uint32_t>(state.range(0));
    const HANDLE folder = OpenFolder(BigFolder::Get().path);
    constexpr uint32_t kLength = 65536;
    const auto buffer = std::make_unique<uint8_t[]>(kLength);
    IO_STATUS_BLOCK io{};
    for (auto _ : state) {
        bool restart = true;
        while (NtQueryDirectoryFile(folder, nullptr, nullptr, nullptr, &io, buffer.get(), kLength, infoClass,
                                    false, nullptr, restart) == STATUS_SUCCESS)
            restart = false;
        if (restart)
            state.SkipWithError("nothing listed");
    }
    NtClose(folder);
}
BENCHMARK(ListByNtCalls)->Arg(FileFullDirectoryInformation)->Arg(FileNamesInformation);

void ListByReaddirAndFstatat(benchmark::State &state)
{
    const std::string path = BigFolder::Get().path;
    for (auto _ : state) {
        DIR *folder = opendir(path.c_str());
        struct stat facts;
        while (const dirent *entry = readdir(folder)) {
            if (fstatat(dirfd(folder), entry->d_name, &facts, 0) == 0)
                benchmark::DoNotOptimize(facts);
        }
        closedir(folder);
    }
}
BENCHMARK(ListByReaddirAndFstatat);

void FindOneByName(benchmark::State &state)
{
    const HANDLE folder = OpenFolder(BigFolder::Get().path);
    char16_t text[] = u"DOCUMENT NUMBER 4999.txt"; // in another case than the file's
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, text);
    uint8_t buffer[1024];
    IO_STATUS_BLOCK io{};
    for (auto _ : state) {
        if (NtQueryDirectoryFile(folder, nullptr, nullptr, nullptr, &io, buffer, sizeof(buffer),
                                 FileFullDirectoryInformation, true, &name, true) != STATUS_SUCCESS)
            state.SkipWithError("not found");
    }
    NtClose(folder);
}
BENCHMARK(FindOneByName);

} // namespace
