// What only the store of files has: its text, its complaints and its writers.
#include "AtOnce.h"
#include "WholeFile.h"
#include "platform/RegistryFixture.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace fodr::platform {
namespace {

using namespace std::string_literals;

std::vector<std::string> complaints;

class RegistryFile : public Registry {
protected:
    RegistryFile()
    {
        complaints.clear();
        SetRegistryComplaintHandler([](const char *text) {
            complaints.emplace_back(text);
            return true;
        });
    }
    ~RegistryFile() override { SetRegistryComplaintHandler(nullptr); }

    std::string FilePath() const { return settings.Folder() + "/HKEY_LOCAL_MACHINE.ini"; }
    void WriteFile(const std::string &text) const { std::ofstream(FilePath()) << text; }
    std::string ReadFile() const { return test::ReadWholeFile(FilePath()); }
};

TEST_F(RegistryFile, ReadsEveryFormOfValue)
{
    WriteFile(
        "# by hand\n[Software\\A]\n"
        "plain=no type: C:\\\\dir\nsz=sz:true\nexpand=EXPAND_SZ:%HOME%\nescaped=sz:\\sa\\tb\\n\\\\\n"
        "list=multi_sz:/home/me/docs;/a\\;b;\nempty list=multi_sz:\nempty=\n"
        "number=dword:4294967295\nhex=dword:0x10\nlong=qword:18446744073709551615\nbytes=binary:00ff7F\n"
        "umlaut=sz:\xC3\xA4\n"
        "too large=dword:4294967296\nno number=dword:12x\nodd=binary:0\nnot utf=sz:\xFF\n");
    const struct {
        const char *name;
        uint32_t type;
        std::string bytes;
    } rows[] = {
        {"plain", kRegSz, "no type: C:\\dir\0"s},
        {"SZ", kRegSz, "true\0"s},
        {"expand", kRegExpandSz, "%HOME%\0"s},
        {"escaped", kRegSz, " a\tb\n\\\0"s},
        {"list", kRegMultiSz, "/home/me/docs\0/a;b\0\0"s},
        {"empty list", kRegMultiSz, "\0"s},
        {"empty", kRegSz, "\0"s},
        {"number", kRegDword, "\xFF\xFF\xFF\xFF"s},
        {"hex", kRegDword, "\x10\0\0\0"s},
        {"long", kRegQword, "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"s},
        {"bytes", kRegBinary, "\0\xFF\x7F"s},
        {"umlaut", kRegSz, "\xC3\xA4\0"s},
    };
    const Key key("software\\a\\");
    for (const auto &row : rows) {
        uint32_t type = kRegNone;
        EXPECT_EQ(key.Value(row.name, false, &type), row.bytes) << row.name;
        EXPECT_EQ(type, row.type) << row.name;
    }
    for (const char *name : {"too large", "no number", "odd", "not utf"})
        EXPECT_EQ(key.Value(name), Key::Error(kErrorInvalidData)) << name;
    EXPECT_EQ(key.Value("missing"), Key::Error(kErrorFileNotFound));
    EXPECT_EQ(key.Value("umlaut", true), "\xE4\0\0\0"s);
    EXPECT_EQ(key.Value("list", true).size(), 2 * rows[4].bytes.size());
    EXPECT_EQ(key.Value("hex", true), "\x10\0\0\0"s);
}

TEST_F(RegistryFile, PathsHaveNoEmptyComponents)
{
    settings.CreateKey();
    for (const char *path : {"\\SOFTWARE", "SOFTWARE\\\\Orvane, Inc."})
        EXPECT_EQ(Key(path).error, kErrorBadPathname) << path;
}

TEST_F(RegistryFile, TextsAreKeptUpToTheirEndAndNumbersWhole)
{
    const Key key(kPlugin, true);
    const struct {
        uint32_t type;
        std::string bytes; // as set
        std::string kept;
    } rows[] = {
        {kRegSz, "C:\\a;b = \"c\" "s, "C:\\a;b = \"c\" \0"s}, // without a terminator
        {kRegSz, " dword:1\0 left out"s, " dword:1\0"s},
        {kRegSz, ""s, "\0"s},
        {kRegExpandSz, "a\nb\t\r\0"s, "a\nb\t\r\0"s},
        {kRegMultiSz, " a\0b;c\\\0\0left out\0"s, " a\0b;c\\\0\0"s},
    };
    for (const auto &row : rows) {
        for (const bool wide : {false, true}) {
            std::string bytes;
            for (const char c : row.bytes) // all ASCII
                bytes.append({c, '\0'});
            ASSERT_EQ(key.Set("Value", row.type, wide ? bytes : row.bytes, wide), kErrorSuccess);
            EXPECT_EQ(key.Value("value"), row.kept);
        }
    }
    for (const auto &[name, type, size] :
         {std::tuple("a=b", kRegDword, 4U), {"a", kRegDword, 3U}, {"a", kRegNone, 0U}})
        EXPECT_EQ(key.Set(name, type, std::string(size, '1')), kErrorInvalidParameter);
}

TEST_F(RegistryFile, AWriterKeepsWhatItDoesNotChange)
{
    WriteFile(
        "# a comment\n[SOFTWARE\\Other]\nx=dword:1\n\n[software\\FODR]\n# mine\ntcpenabled=false\nb=2\n");
    chmod(FilePath().c_str(), 0600);
    const Key key("Software\\fodr", true);
    ASSERT_EQ(key.Set("tcpEnabled", kRegSz, "true\0"s), kErrorSuccess);
    EXPECT_EQ(key.Value("tcpEnabled"), "true\0"s);
    const std::string text = ReadFile();
    for (const char *kept : {"# a comment\n", "x=dword:1\n", "[software\\FODR]\n", "b=2\n"})
        EXPECT_NE(text.find(kept), std::string::npos) << kept << text;
    EXPECT_EQ(text.find("false"), std::string::npos) << text;
    EXPECT_EQ(std::filesystem::status(FilePath()).permissions(), std::filesystem::perms(0600));
}

TEST_F(RegistryFile, AMalformedFileCountsAsEmptyIsSaidOnceAndIsNeverOverwritten)
{
    settings.SetText("tcpEnabled", "true");
    ASSERT_EQ(Key(kPlugin).Value("tcpEnabled"), "true\0"s);
    const std::string broken = "[SOFTWARE\\fodr\ntcpEnabled=sz:true\n";
    WriteFile(broken);
    for (const char *path : {kPlugin, "SOFTWARE\\fodr"}) // which may be meant to be there
        EXPECT_EQ(Key(path).error, kErrorInvalidData);
    EXPECT_EQ(Key(kPlugin, true).error, kErrorInvalidData);
    EXPECT_EQ(ReadFile(), broken);
    ASSERT_EQ(complaints.size(), 1U);
    EXPECT_NE(complaints[0].find(FilePath()), std::string::npos);
    EXPECT_EQ(complaints[0].find('\n'), std::string::npos);

    settings.SetText("tcpEnabled", "false");
    EXPECT_EQ(Key(kPlugin).Value("tcpEnabled"), "false\0"s);
    EXPECT_EQ(complaints.size(), 1U);
}

TEST_F(RegistryFile, ASentenceThatNobodyTookIsSaidAgain)
{
    WriteFile("nonsense\n");
    static int offers;
    offers = 0;
    SetRegistryComplaintHandler([](const char *) { return ++offers == 2; });
    for (int n = 0; n < 4; ++n)
        Key(kPlugin).Value("dll");
    EXPECT_EQ(offers, 2);
}

// Rewritten in place with the same size: nothing but the content tells.
TEST_F(RegistryFile, EveryRewriteIsSeenAtOnce)
{
    for (int n = 0; n < 300; ++n) {
        WriteFile("[A]\nn=dword:" + std::to_string(n % 10) + "\n");
        ASSERT_EQ(Key("A").Value("n")[0], n % 10);
    }
}

TEST_F(RegistryFile, WritersDontLoseEachOthersValuesAndReadersNeverSeeHalfAFile)
{
    const Key key(kPlugin, true);
    ASSERT_EQ(key.Set("z", kRegDword, "1234"), kErrorSuccess);
    std::atomic<bool> done = false;
    std::thread reader([&] {
        while (!done)
            EXPECT_EQ(Key(kPlugin).Value("z"), "1234");
    });
    test::AtOnce(3, [](int which) {
        for (int n = 0; n < 20; ++n) {
            Key(kPlugin).Set(std::to_string(20 * which + n), kRegSz, "x\0"s);
        }
    });
    done = true;
    reader.join();
    for (int n = 0; n < 60; ++n)
        EXPECT_EQ(key.Value(std::to_string(n)), "x\0"s);
    EXPECT_TRUE(complaints.empty());
}

} // namespace
} // namespace fodr::platform
