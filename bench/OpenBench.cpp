// Opens and creates as a request makes them, in a folder that is shared and in one that isn't.
#include "lib/unicode/CodeSet.h"
#include "platform/Nt.h"

#include <stdlib.h>
#include <unistd.h>

#include <benchmark/benchmark.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>

namespace {

using namespace fodr::nt;

enum Place { NoShare, AnyCase, Exact };

class Folder {
public:
    explicit Folder(int64_t place)
    {
        std::string name = (std::filesystem::temp_directory_path() / "fodr-bench-XXXXXX").string();
        path = mkdtemp(name.data());
        std::filesystem::create_directories(path / "home/somebody/share/sub/folder");
        std::ofstream(path / "home/somebody/share/sub/folder/file") << "x";
        if (fodr::Utf8ToUtf16("\\??\\" + (path / "home/somebody/share").string(), root) && place != NoShare)
            share.emplace(root, ShareRules{.names = place == Exact ? CaseRule::Exact : CaseRule::AnyCase});
    }
    ~Folder() { std::filesystem::remove_all(path); }

    NTSTATUS Open(std::u16string_view below, uint32_t access, uint32_t disposition, uint32_t options) const
    {
        std::u16string text = root + u"\\sub\\folder\\" + std::u16string(below);
        const auto bytes = static_cast<uint16_t>(text.size() * sizeof(char16_t));
        UNICODE_STRING name{bytes, bytes, text.data()};
        OBJECT_ATTRIBUTES object{sizeof(OBJECT_ATTRIBUTES), nullptr, &name,
                                 OBJ_CASE_INSENSITIVE,      nullptr, nullptr};
        IO_STATUS_BLOCK io{};
        HANDLE handle = nullptr;
        const NTSTATUS status =
            NtCreateFile(&handle, access | SYNCHRONIZE, &object, &io, nullptr, 0, FILE_SHARE_READ,
                         disposition, options | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
        if (handle)
            NtClose(handle);
        return status;
    }

private:
    std::filesystem::path path;
    std::u16string root;
    std::optional<ShareRoot> share;
};

void Run(benchmark::State &state, std::u16string_view name, uint32_t access, uint32_t disposition,
         uint32_t options, NTSTATUS expected)
{
    const Folder folder(state.range(0));
    for (auto _ : state) {
        if (folder.Open(name, access, disposition, options) != expected)
            state.SkipWithError("another status");
    }
}

void OpenForData(benchmark::State &state)
{
    Run(state, u"file", GENERIC_READ, FILE_OPEN, 0, STATUS_SUCCESS);
}

void OpenForAttributes(benchmark::State &state)
{
    Run(state, u"file", FILE_READ_ATTRIBUTES, FILE_OPEN, 0, STATUS_SUCCESS);
}

void OpenMissing(benchmark::State &state)
{
    Run(state, u"none", GENERIC_READ, FILE_OPEN, 0, STATUS_OBJECT_NAME_NOT_FOUND);
}

void CreateAndDelete(benchmark::State &state)
{
    Run(state, u"new", GENERIC_WRITE | DELETE_ACCESS, FILE_CREATE, FILE_DELETE_ON_CLOSE, STATUS_SUCCESS);
}

BENCHMARK(OpenForData)->Arg(NoShare)->Arg(AnyCase)->Arg(Exact);
BENCHMARK(OpenForAttributes)->Arg(NoShare)->Arg(AnyCase)->Arg(Exact);
BENCHMARK(OpenMissing)->Arg(NoShare)->Arg(AnyCase)->Arg(Exact);
BENCHMARK(CreateAndDelete)->Arg(NoShare)->Arg(AnyCase)->Arg(Exact);

} // namespace
