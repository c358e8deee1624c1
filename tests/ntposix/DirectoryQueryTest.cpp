#include "WireExamples.h"
#include "ntposix/DirectoryScan.h"
#include "ntposix/InfoBuffer.h"
#include "ntposix/NtWords.h"

#include <algorithm>

namespace fodr::nt {
namespace {

class DirectoryQuery : public NtFixture {
protected:
    // All of a new search, in order.
    NameList NamesOf(const Search &search) const
    {
        const NtFile folder = Folder("");
        NameList all;
        Listed answer = List(folder, search);
        for (; answer.status == STATUS_SUCCESS; answer = List(folder, search))
            all.insert(all.end(), answer.names.begin(), answer.names.end());
        EXPECT_EQ(answer.status, all.empty() ? STATUS_NO_SUCH_FILE : STATUS_NO_MORE_FILES);
        std::ranges::sort(all);
        return all;
    }
};

TEST_F(DirectoryQuery, EveryClassTellsWhatQueriesOfTheFilesTell)
{
    MakeFile("plain", "abc");
    MakeFile(".hidden");
    MakeReadOnly("locked");
    MakeFolder("sub");
    for (const ListingClass &c : kListingClasses) {
        const Listed answer = List(Folder(""), {.infoClass = c.infoClass});
        ASSERT_EQ(answer.names.size(), 6u) << c.infoClass;
        EXPECT_EQ(NameList(answer.names.begin(), answer.names.begin() + 2), (NameList{".", ".."}));
        EXPECT_EQ(NameSet(answer.names.begin() + 2, answer.names.end()), Listing());
        for (size_t i = 0; i < answer.names.size(); ++i) {
            const std::string &name = answer.names[i];
            SCOPED_TRACE(testing::Message() << name << " in class " << c.infoClass);
            struct stat stat;
            ASSERT_EQ(::stat(Path(name).c_str(), &stat), 0);
            const auto &[record, listed] = answer.records[i];
            EXPECT_EQ(listed.FileId & kInodeBits, c.idOffset ? stat.st_ino & kInodeBits : 0);
            if (c.infoClass == FileNamesInformation || name == "..")
                continue;
            if (c.infoClass == FileBothDirectoryInformation) {
                EXPECT_EQ(listed.Mode, stat.st_mode);
                EXPECT_EQ(listed.Owner, stat.st_uid);
                EXPECT_EQ(listed.Group, stat.st_gid);
                EXPECT_EQ(listed.Links, S_ISDIR(stat.st_mode) ? 1 : stat.st_nlink);
            }
            EXPECT_EQ(record.EaSize, 0u);
            EXPECT_EQ(record.FileIndex, 0u);
            const NtFile file = name == "." ? Folder("") : Open(name, {.access = FILE_READ_ATTRIBUTES});
            EXPECT_EQ(listed.FileId, c.idOffset ? IdOf(file) : 0);
            const auto facts = Told<FILE_NETWORK_OPEN_INFORMATION>(file, FileNetworkOpenInformation);
            EXPECT_EQ(record.FileAttributes, facts.FileAttributes);
            EXPECT_EQ(record.CreationTime, facts.CreationTime);
            EXPECT_EQ(record.LastWriteTime, facts.LastWriteTime);
            EXPECT_EQ(record.ChangeTime, facts.ChangeTime);
            EXPECT_EQ(record.EndOfFile, facts.EndOfFile);
            EXPECT_EQ(record.AllocationSize, facts.AllocationSize);
        }
    }
}

TEST(ListingWriter, TheDocumentedEntryIsWhatIsWritten)
{
    ntposix::FileMetadata facts;
    facts.id = 0x1A2B'0000'0001'E240;
    facts.mode = 0100644;
    facts.owner = 1000;
    facts.group = 100;
    facts.links = 2;
    facts.endOfFile = 5;
    facts.allocation = 4096;
    facts.creationTime = facts.lastAccessTime = facts.lastWriteTime = facts.changeTime =
        0x01D9'0000'0000'0000;
    facts.attributes = FILE_ATTRIBUTE_ARCHIVE;
    uint8_t buffer[128];
    ntposix::ListingWriter entries(buffer, sizeof(buffer), FileBothDirectoryInformation);
    ASSERT_TRUE(entries.Append(u"a", facts));
    EXPECT_EQ(Bytes(buffer, buffer + entries.Written()), WireExample("Listing entry with an id"));
}

TEST_F(DirectoryQuery, EntriesGoOnFromBufferToBuffer)
{
    NameSet expected{".", ".."};
    for (size_t i = 0; i < 1500; ++i) {
        const std::string name = std::string(1 + i % 200, 'n') + std::to_string(i);
        MakeFile(name);
        expected.insert(name);
    }
    const NameList sorted(expected.begin(), expected.end());
    for (const uint32_t length : {600u, 777u, 4096u, 65536u})
        EXPECT_EQ(NamesOf({.length = length}), sorted) << length;
    EXPECT_EQ(NamesOf({.infoClass = FileNamesInformation, .single = true}), sorted);
}

TEST_F(DirectoryQuery, PatternsChooseAndPlainNamesAreLookedUp)
{
    for (const auto *name : {"a.txt", "B.TXT", "b.c", "makefile", "Gr\u00F6\u00DFe"})
        MakeFile(name);
    const struct {
        std::u16string_view pattern;
        NameList names;
    } cases[] = {
        {u"*.txt", {"B.TXT", "a.txt"}},
        {u"b*", {"B.TXT", "b.c"}},
        {u"<.>", {".", "..", "b.c"}},
        {u"b.txt", {"B.TXT"}},
        {u"MAKEFILE", {"makefile"}},
        {u"gr\u00D6\u00DFE", {"Gr\u00F6\u00DFe"}},
        {u".", {"."}},
        {u"..", {".."}},
        {u"none", {}},
        {u"*.none", {}},
        {u"a/b", {}},
        {u"..\\x", {}},
    };
    for (const auto &c : cases) {
        for (const bool single : {false, true})
            EXPECT_EQ(NamesOf({.pattern = c.pattern, .single = single}), c.names) << Utf8(c.pattern);
    }
    // The name is the one that the directory has, exactly spelled ones first.
    MakeFile("b.txt");
    for (const auto *pattern : {u"b.txt", u"B.TXT"})
        EXPECT_EQ(NamesOf({pattern}), NameList{Utf8(pattern)});
}

TEST_F(DirectoryQuery, ThePatternHoldsUntilARestartBringsAnother)
{
    MakeFile("a");
    MakeFile("b");
    const NtFile folder = Folder("");
    EXPECT_EQ(List(folder, {.pattern = u"a"}).names, NameList{"a"});
    EXPECT_EQ(List(folder, {.pattern = u"b"}).status, STATUS_NO_MORE_FILES);
    EXPECT_EQ(List(folder, {.restart = true}).names, NameList{"a"});
    EXPECT_EQ(List(folder, {.pattern = u"b", .restart = true}).names, NameList{"b"});
    EXPECT_EQ(List(folder, {.pattern = u"c", .restart = true}).status, STATUS_NO_SUCH_FILE);
    EXPECT_EQ(List(folder).status, STATUS_NO_MORE_FILES);
    EXPECT_EQ(List(folder, {.pattern = u"*", .restart = true}).names.size(), 4u);
    MakeFile("c");
    EXPECT_EQ(List(folder, {.restart = true}).names.size(), 5u); // read anew, not remembered
}

TEST_F(DirectoryQuery, BuffersThatAreTooSmall)
{
    const std::string longName(255, 'x');
    MakeFile(longName);
    MakeFile("y");
    for (const ListingClass &c : kListingClasses) {
        SCOPED_TRACE(c.infoClass);
        const NtFile folder = Folder("");
        Search search{.pattern = u"x*", .infoClass = c.infoClass, .length = c.minimum - 1};
        EXPECT_EQ(List(folder, search).status, STATUS_INFO_LENGTH_MISMATCH);
        search.length = c.minimum + 4; // the search hasn't begun yet
        const Listed cut = List(folder, search);
        EXPECT_EQ(cut.status, STATUS_BUFFER_OVERFLOW);
        EXPECT_EQ(cut.information, search.length);
        EXPECT_EQ(List(folder, search).status, STATUS_NO_MORE_FILES); // the entry counts as delivered
        search.restart = true;
        search.length = c.nameOffset + 2 * 255;
        EXPECT_EQ(List(folder, search).names, NameList{longName});
    }
}

TEST_F(DirectoryQuery, RefusesWhatCannotBeListed)
{
    MakeFile("f");
    for (const uint32_t other : {0u, 4u, 34u, 60u})
        EXPECT_EQ(List(Folder(""), {.infoClass = other}).status, STATUS_INVALID_INFO_CLASS);
    EXPECT_EQ(List(Open("f")).status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(List(Open("", {.access = FILE_READ_ATTRIBUTES})).status, STATUS_ACCESS_DENIED);
    const std::u16string tooLong(3000, u'>');
    EXPECT_EQ(List(Folder(""), {tooLong}).status, STATUS_OBJECT_NAME_INVALID);
}

TEST_F(DirectoryQuery, OddEntriesAreListedToo)
{
    MakeFolder("sub");
    MakeFile("target", "1234567");
    MakeSymlink("target", "to-file");
    MakeSymlink("sub", "to-folder");
    MakeSymlink("nowhere", "dangling");
    MakeSymlink("loop", "loop");
    ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
    MakeFile("colon:star*");
    MakeFile("bad\xFFutf8");
    const Listed all = List(Folder(""));
    EXPECT_EQ(all.names.size(), 11u);
    const auto facts = [&](const char *name) {
        const auto found = std::ranges::find(all.names, name);
        return all.records.at(static_cast<size_t>(found - all.names.begin())).first;
    };
    // Links are listed as links, and a handle of one tells the same.
    const struct {
        const char *name;
        int64_t length;
    } links[] = {{"to-file", 6}, {"to-folder", 3}, {"dangling", 7}, {"loop", 4}};
    for (const auto &[name, length] : links) {
        SCOPED_TRACE(name);
        const FILE_FULL_DIR_INFORMATION listed = facts(name);
        EXPECT_EQ(listed.EndOfFile, length);
        EXPECT_EQ(listed.FileAttributes, FILE_ATTRIBUTE_REPARSE_POINT);
        EXPECT_EQ(listed.EaSize, IO_REPARSE_TAG_SYMLINK);
        const NtFile link = Open(name, {.access = FILE_READ_ATTRIBUTES, .options = FILE_OPEN_REPARSE_POINT});
        const auto told = Told<FILE_STAT_LX_INFORMATION>(link, FileStatLxInformation);
        EXPECT_EQ(told.Stat.EndOfFile, length);
        EXPECT_EQ(told.Stat.FileAttributes, FILE_ATTRIBUTE_REPARSE_POINT);
        EXPECT_EQ(told.Stat.ReparseTag, IO_REPARSE_TAG_SYMLINK);
        EXPECT_TRUE(S_ISLNK(told.LxMode));
        EXPECT_EQ(StandardOf(link).EndOfFile, length);
        EXPECT_EQ(StandardOf(link).Directory, 0);
    }
    EXPECT_EQ(facts("fifo").FileAttributes, FILE_ATTRIBUTE_SYSTEM);
    const Listed modes = List(Folder(""), {.infoClass = FileBothDirectoryInformation});
    const auto fifo = static_cast<size_t>(std::ranges::find(modes.names, "fifo") - modes.names.begin());
    EXPECT_TRUE(S_ISFIFO(modes.records.at(fifo).second.Mode));
    EXPECT_EQ(NamesOf({u"COLON\uF03A*"}), NameList{Utf8(u"colon\uF03Astar\uF02A")});
    EXPECT_EQ(NamesOf({u"bad\uF7FFutf8"}), NameList{Utf8(u"bad\uF7FFutf8")});
}

TEST_F(DirectoryQuery, ListingsThatAreLeftInTheirMiddleHaveALimit)
{
    MakeFile("f");
    MakeFile("g");
    std::vector<NtFile> folders;
    const auto listThree = [&] { // ".", ".." and one more: now the directory is being read
        folders.push_back(Folder(""));
        NTSTATUS status = STATUS_SUCCESS;
        for (int i = 0; i < 3 && status == STATUS_SUCCESS; ++i)
            status = List(folders.back(), {.length = 80, .single = true}).status;
        return status;
    };
    for (int n = 0; n < ntposix::DirentReader::kMostUnderWay; ++n)
        ASSERT_EQ(listThree(), STATUS_SUCCESS) << n;
    EXPECT_EQ(listThree(), STATUS_INSUFFICIENT_RESOURCES);
    folders.erase(folders.begin());
    EXPECT_EQ(listThree(), STATUS_SUCCESS);
}

TEST_F(DirectoryQuery, WhatVanishesWhileListingDropsOut)
{
    for (int i = 0; i < 50; ++i)
        MakeFile("f" + std::to_string(i));
    const NtFile folder = Folder("");
    for (int i = 0; i < 3; ++i) // ".", ".." and one more: the directory has been read now
        ASSERT_EQ(List(folder, {.length = 80, .single = true}).status, STATUS_SUCCESS);
    for (const std::string &name : Listing())
        std::filesystem::remove(root / name);
    EXPECT_EQ(List(folder).status, STATUS_NO_MORE_FILES);
    std::filesystem::remove(root);
    EXPECT_EQ(List(folder, {.pattern = u"x*", .restart = true}).status, STATUS_NO_SUCH_FILE);
}

} // namespace
} // namespace fodr::nt
