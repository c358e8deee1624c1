#include "ntposix/NtFixture.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <vector>

namespace fodr::nt {
namespace {

struct Listed {
    std::u16string name;
    FILE_DIRECTORY_INFORMATION facts{}; // no facts of a names-only record
    uint32_t eaSize = 0;
    int64_t fileId = 0;
};

struct ClassCase {
    uint32_t infoClass, nameOffset, minimum, idOffset; // no id: 0
};

constexpr ClassCase kClasses[] = {
    {FileDirectoryInformation, 64, 72, 0},          {FileFullDirectoryInformation, 68, 72, 0},
    {FileBothDirectoryInformation, 94, 96, 0},      {FileNamesInformation, 12, 16, 0},
    {FileIdBothDirectoryInformation, 104, 112, 96}, {FileIdFullDirectoryInformation, 80, 88, 72},
};

struct Query {
    uint32_t infoClass = FileFullDirectoryInformation;
    std::u16string_view pattern = {};
    uint32_t length = 65536;
    bool single = false;
    bool restart = false;
};

// One call. The buffer is a heap block of just that length, so that a byte too far is a fault.
struct Answer {
    NTSTATUS status;
    uint64_t information;
    std::vector<Listed> records;
};

template <typename T> T Get(const uint8_t *at)
{
    T value;
    memcpy(&value, at, sizeof(T));
    return value;
}

std::vector<Listed> Parse(const uint8_t *buffer, uint64_t length, const Query &query)
{
    std::vector<Listed> records;
    const ClassCase &row = *std::ranges::find(kClasses, query.infoClass, &ClassCase::infoClass);
    const bool namesOnly = query.infoClass == FileNamesInformation;
    for (uint64_t at = 0, next = 1; next != 0; at += next) {
        EXPECT_EQ(at % 8, 0u);
        EXPECT_LE(at + row.nameOffset, length);
        next = Get<uint32_t>(buffer + at);
        Listed &record = records.emplace_back();
        if (!namesOnly)
            memcpy(&record.facts, buffer + at, 64);
        if (row.nameOffset >= 68)
            record.eaSize = Get<uint32_t>(buffer + at + 64);
        if (row.idOffset)
            record.fileId = Get<int64_t>(buffer + at + row.idOffset);
        const auto nameLength = Get<uint32_t>(buffer + at + (namesOnly ? 8 : 60));
        const uint64_t end = at + row.nameOffset + nameLength;
        if (next ? end > at + next : end != length) {
            ADD_FAILURE() << "a name that leaves its record at " << at;
            break;
        }
        record.name.resize(nameLength / 2);
        memcpy(record.name.data(), buffer + at + row.nameOffset, nameLength);
    }
    return records;
}

Answer List(HANDLE folder, const Query &query = {})
{
    const auto buffer = std::make_unique<uint8_t[]>(query.length);
    std::u16string text(query.pattern);
    const auto bytes = static_cast<uint16_t>(text.size() * 2);
    UNICODE_STRING pattern{bytes, bytes, text.data()};
    IO_STATUS_BLOCK io{};
    Answer answer{};
    answer.status =
        NtQueryDirectoryFile(folder, nullptr, nullptr, nullptr, &io, buffer.get(), query.length,
                             query.infoClass, query.single, text.empty() ? nullptr : &pattern, query.restart);
    answer.information = io.Information;
    EXPECT_EQ(io.Status, answer.status);
    if (answer.status == STATUS_SUCCESS)
        answer.records = Parse(buffer.get(), io.Information, query);
    return answer;
}

std::vector<std::string> Names(const std::vector<Listed> &records)
{
    std::vector<std::string> names;
    for (const Listed &record : records)
        names.push_back(Utf8(record.name));
    return names;
}

class DirectoryQuery : public NtFixture {
protected:
    NtFile Folder(std::string_view name = "") const { return Open(name, {.options = FILE_DIRECTORY_FILE}); }
    // All records of a new search, sorted by name.
    std::vector<Listed> All(const Query &query, std::string_view name = "") const
    {
        const NtFile folder = Folder(name);
        std::vector<Listed> all;
        Answer answer = List(folder, query);
        for (; answer.status == STATUS_SUCCESS; answer = List(folder, query))
            all.insert(all.end(), answer.records.begin(), answer.records.end());
        EXPECT_EQ(answer.status, all.empty() ? STATUS_NO_SUCH_FILE : STATUS_NO_MORE_FILES);
        std::ranges::sort(all, {}, &Listed::name);
        return all;
    }
    std::map<std::string, Listed> ByName(const Query &query = {}) const
    {
        std::map<std::string, Listed> map;
        for (const Listed &record : All(query))
            map[Utf8(record.name)] = record;
        return map;
    }
};

TEST_F(DirectoryQuery, EveryClassListsTheSameEntriesInItsLayout)
{
    MakeFile("b.txt", "12345");
    MakeFolder("sub");
    for (const ClassCase &c : kClasses) {
        SCOPED_TRACE(c.infoClass);
        const NtFile folder = Folder();
        const Answer answer = List(folder, {.infoClass = c.infoClass});
        ASSERT_EQ(answer.status, STATUS_SUCCESS);
        const auto names = Names(answer.records);
        ASSERT_EQ(names.size(), 4u);
        EXPECT_EQ(names[0], ".");
        EXPECT_EQ(names[1], "..");
        EXPECT_EQ(std::set<std::string>(names.begin() + 2, names.end()),
                  (std::set<std::string>{"b.txt", "sub"}));
        for (const Listed &record : answer.records) {
            struct stat facts;
            ASSERT_EQ(stat(Path(Utf8(record.name)).c_str(), &facts), 0);
            if (c.nameOffset > 12) {
                EXPECT_EQ(record.facts.EndOfFile, S_ISDIR(facts.st_mode) ? 0 : 5);
                EXPECT_EQ((record.facts.FileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0,
                          S_ISDIR(facts.st_mode));
                EXPECT_EQ(record.facts.FileIndex, 0u);
            }
            if (record.fileId != 0) {
                EXPECT_EQ(record.fileId, static_cast<int64_t>(facts.st_ino));
            }
            EXPECT_EQ(record.eaSize, 0u);
        }
        EXPECT_EQ(List(folder, {.infoClass = c.infoClass}).status, STATUS_NO_MORE_FILES);
    }
}

TEST_F(DirectoryQuery, RecordsTellWhatAQueryOfTheFileTells)
{
    MakeFile("plain", "abc");
    MakeFile(".hidden");
    MakeFile("locked");
    chmod(Path("locked").c_str(), 0444);
    MakeFolder("sub");
    for (const auto &[name, record] : ByName()) {
        if (name == "..")
            continue;
        SCOPED_TRACE(name);
        const NtFile file = name == "." ? Folder() : Open(name, {.access = FILE_READ_ATTRIBUTES});
        FILE_NETWORK_OPEN_INFORMATION facts{};
        IO_STATUS_BLOCK io{};
        ASSERT_EQ(NtQueryInformationFile(file, &io, &facts, sizeof(facts), FileNetworkOpenInformation),
                  STATUS_SUCCESS);
        EXPECT_EQ(record.facts.FileAttributes, facts.FileAttributes);
        EXPECT_EQ(record.facts.CreationTime, facts.CreationTime);
        EXPECT_EQ(record.facts.LastWriteTime, facts.LastWriteTime);
        EXPECT_EQ(record.facts.ChangeTime, facts.ChangeTime);
        EXPECT_EQ(record.facts.EndOfFile, facts.EndOfFile);
        EXPECT_EQ(record.facts.AllocationSize, facts.AllocationSize);
    }
}

TEST_F(DirectoryQuery, EntriesGoOnFromBufferToBuffer)
{
    std::set<std::string> expected{".", ".."};
    for (int i = 0; i < 1500; ++i) {
        const std::string name = std::string(static_cast<size_t>(1 + i % 200), 'n') + std::to_string(i);
        MakeFile(name);
        expected.insert(name);
    }
    for (const uint32_t length : {600u, 777u, 4096u, 65536u}) {
        const auto names = Names(All({.length = length}));
        EXPECT_EQ(names.size(), expected.size()) << length;
        EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), expected) << length;
    }
    EXPECT_EQ(All({.infoClass = FileNamesInformation, .single = true}).size(), expected.size());
}

TEST_F(DirectoryQuery, PatternsChooseAndPlainNamesAreLookedUp)
{
    for (const auto *name : {"a.txt", "B.TXT", "b.c", "makefile",
                             "Gr\xC3\xB6\xC3\x9F"
                             "e"})
        MakeFile(name);
    struct Case {
        std::u16string_view pattern;
        std::vector<std::string> names;
    };
    const Case cases[] = {
        {u"*.txt", {"B.TXT", "a.txt"}},
        {u"b*", {"B.TXT", "b.c"}},
        {u"<.>", {".", "..", "b.c"}},
        {u"b.txt", {"B.TXT"}},
        {u"MAKEFILE", {"makefile"}},
        {u"gr\u00D6\u00DFE",
         {"Gr\xC3\xB6\xC3\x9F"
          "e"}},
        {u".", {"."}},
        {u"..", {".."}},
        {u"none", {}},
        {u"*.none", {}},
        {u"a/b", {}},
        {u"..\\x", {}},
    };
    for (const Case &c : cases) {
        for (const bool single : {false, true})
            EXPECT_EQ(Names(All({.pattern = c.pattern, .single = single})), c.names) << Utf8(c.pattern);
    }
    // The name is the one that the directory has, exactly spelled ones first.
    MakeFile("b.txt");
    EXPECT_EQ(Names(All({.pattern = u"b.txt"})), std::vector<std::string>{"b.txt"});
    EXPECT_EQ(Names(All({.pattern = u"B.TXT"})), std::vector<std::string>{"B.TXT"});
}

TEST_F(DirectoryQuery, ThePatternHoldsUntilARestartBringsAnother)
{
    MakeFile("a");
    MakeFile("b");
    const NtFile folder = Folder();
    EXPECT_EQ(Names(List(folder, {.pattern = u"a"}).records), std::vector<std::string>{"a"});
    EXPECT_EQ(List(folder, {.pattern = u"b"}).status, STATUS_NO_MORE_FILES);
    EXPECT_EQ(Names(List(folder, {.restart = true}).records), std::vector<std::string>{"a"});
    EXPECT_EQ(Names(List(folder, {.pattern = u"b", .restart = true}).records), std::vector<std::string>{"b"});
    EXPECT_EQ(List(folder, {.pattern = u"c", .restart = true}).status, STATUS_NO_SUCH_FILE);
    EXPECT_EQ(List(folder).status, STATUS_NO_MORE_FILES);
    EXPECT_EQ(List(folder, {.pattern = u"*", .restart = true}).records.size(), 4u);
    MakeFile("c");
    EXPECT_EQ(List(folder, {.restart = true}).records.size(), 5u); // read anew, not remembered
}

TEST_F(DirectoryQuery, BuffersThatAreTooSmall)
{
    const std::string longName(255, 'x');
    MakeFile(longName);
    MakeFile("y");
    for (const ClassCase &c : kClasses) {
        SCOPED_TRACE(c.infoClass);
        const NtFile folder = Folder();
        Query query{.infoClass = c.infoClass, .pattern = u"x*", .length = c.minimum - 1};
        EXPECT_EQ(List(folder, query).status, STATUS_INFO_LENGTH_MISMATCH);
        query.length = c.minimum + 4; // the search hasn't begun yet
        const Answer cut = List(folder, query);
        EXPECT_EQ(cut.status, STATUS_BUFFER_OVERFLOW);
        EXPECT_EQ(cut.information, query.length);
        EXPECT_EQ(List(folder, query).status, STATUS_NO_MORE_FILES); // the entry counts as delivered
        query.restart = true;
        query.length = c.nameOffset + 2 * 255;
        const Answer exact = List(folder, query);
        EXPECT_EQ(exact.status, STATUS_SUCCESS);
        EXPECT_EQ(Names(exact.records), std::vector<std::string>{longName});
    }
}

TEST_F(DirectoryQuery, RefusesWhatCannotBeListed)
{
    MakeFile("f");
    const NtFile folder = Folder();
    IO_STATUS_BLOCK io{};
    uint8_t buffer[256];
    const auto call = [&](HANDLE handle, uint32_t infoClass) {
        return NtQueryDirectoryFile(handle, nullptr, nullptr, nullptr, &io, buffer, sizeof(buffer), infoClass,
                                    false, nullptr, false);
    };
    for (const uint32_t other : {0u, 4u, 34u, 60u})
        EXPECT_EQ(call(folder, other), STATUS_INVALID_INFO_CLASS);
    EXPECT_EQ(call(nullptr, FileNamesInformation), STATUS_INVALID_HANDLE);
    EXPECT_EQ(call(Open("f"), FileNamesInformation), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(call(Open("", {.access = FILE_READ_ATTRIBUTES}), FileNamesInformation), STATUS_ACCESS_DENIED);
    EXPECT_EQ(List(folder, {.pattern = std::u16string(3000, u'>')}).status, STATUS_OBJECT_NAME_INVALID);
}

TEST_F(DirectoryQuery, OddEntriesAreListedToo)
{
    MakeFolder("sub");
    MakeFile("target", "1234567");
    ASSERT_EQ(symlink("target", Path("to-file").c_str()), 0);
    ASSERT_EQ(symlink("sub", Path("to-folder").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", Path("dangling").c_str()), 0);
    ASSERT_EQ(symlink("loop", Path("loop").c_str()), 0);
    ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
    MakeFile("colon:star*");
    MakeFile("bad\xFFutf8");
    const auto all = ByName();
    EXPECT_EQ(all.size(), 11u);
    const auto facts = [&](const char *name) { return all.at(name).facts; };
    EXPECT_EQ(facts("to-file").EndOfFile, 7);
    EXPECT_EQ(facts("to-file").FileAttributes, facts("target").FileAttributes);
    EXPECT_TRUE(facts("to-folder").FileAttributes & FILE_ATTRIBUTE_DIRECTORY);
    for (const auto *name : {"dangling", "loop", "fifo"}) {
        EXPECT_EQ(facts(name).EndOfFile, 0) << name;
        EXPECT_FALSE(facts(name).FileAttributes & FILE_ATTRIBUTE_DIRECTORY) << name;
    }
    EXPECT_EQ(all.at("dangling").eaSize, IO_REPARSE_TAG_SYMLINK);
    EXPECT_TRUE(all.contains(Utf8(u"colon\uF03Astar\uF02A")));
    EXPECT_TRUE(all.contains(Utf8(u"bad\uF7FFutf8")));
    EXPECT_EQ(Names(All({.pattern = u"COLON\uF03A*"})).size(), 1u);
    EXPECT_EQ(Names(All({.pattern = u"bad\uF7FFutf8"})).size(), 1u);
}

TEST_F(DirectoryQuery, WhatVanishesWhileListingDropsOut)
{
    for (int i = 0; i < 50; ++i)
        MakeFile("f" + std::to_string(i));
    const NtFile folder = Folder();
    ASSERT_EQ(List(folder, {.length = 72}).status, STATUS_SUCCESS); // "."
    Answer one = List(folder, {.length = 80, .single = true});      // ".."
    one = List(folder, {.length = 80, .single = true});             // the directory has been read now
    ASSERT_EQ(one.status, STATUS_SUCCESS);
    for (int i = 0; i < 50; ++i)
        std::filesystem::remove(root / ("f" + std::to_string(i)));
    EXPECT_EQ(List(folder).status, STATUS_NO_MORE_FILES);
    std::filesystem::remove(root);
    EXPECT_EQ(List(folder, {.pattern = u"x*", .restart = true}).status, STATUS_NO_SUCH_FILE);
}

} // namespace
} // namespace fodr::nt
