#include "platform/Registry.h"

#include "AtOnce.h"
#include "SettingsFixture.h"
#include "WholeFile.h"
#include "platform/SystemError.h"

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace fodr::platform {
namespace {

using namespace std::string_literals;

constexpr char kPlugin[] = "SOFTWARE\\Orvane, Inc.\\Orvane ODPService\\Plugins\\fodr";

std::vector<std::string> complaints;

class Registry : public testing::Test {
protected:
    void SetUp() override
    {
        complaints.clear();
        SetRegistryComplaintHandler([](const char *text) {
            complaints.emplace_back(text);
            return true;
        });
    }
    void TearDown() override { SetRegistryComplaintHandler(nullptr); }

    std::string FilePath() const { return settings.Folder() + "/HKEY_LOCAL_MACHINE.ini"; }
    void WriteFile(const std::string &text) const { std::ofstream(FilePath()) << text; }
    std::string ReadFile() const { return test::ReadWholeFile(FilePath()); }

    struct Key {
        ~Key() { RegistryClose(handle); }
        RegistryKey handle = nullptr;
    };
    struct Answer {
        uint32_t error;
        uint32_t type;
        std::string bytes;
    };
    static Answer Query(RegistryKey key, const std::string &name, bool wide = false)
    {
        Answer answer{};
        uint32_t size = 0;
        answer.error = RegistryQuery(key, name, wide, &answer.type, nullptr, &size);
        if (answer.error != kErrorSuccess)
            return answer;
        answer.bytes.resize(size);
        answer.error = RegistryQuery(key, name, wide, nullptr, answer.bytes.data(), &size);
        return answer;
    }
    static Answer QueryAt(const std::string &path, const std::string &name, bool wide = false)
    {
        Key key;
        const uint32_t error = RegistryOpen(RegistryRoot::LocalMachine, path, kRegKeyRead, &key.handle);
        return error == kErrorSuccess ? Query(key.handle, name, wide) : Answer{error, 0, {}};
    }

    test::SettingsFixture settings;
};

TEST_F(Registry, ReadsEveryFormOfValue)
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
    for (const auto &row : rows) {
        const Answer answer = QueryAt("software\\a\\", row.name);
        EXPECT_EQ(answer.error, kErrorSuccess) << row.name;
        EXPECT_EQ(answer.type, row.type) << row.name;
        EXPECT_EQ(answer.bytes, row.bytes) << row.name;
    }
    for (const char *name : {"too large", "no number", "odd", "not utf"})
        EXPECT_EQ(QueryAt("Software\\A", name).error, kErrorInvalidData) << name;
    EXPECT_EQ(QueryAt("Software\\A", "missing").error, kErrorFileNotFound);
    EXPECT_EQ(QueryAt("Software\\A", "umlaut", true).bytes, "\xE4\0\0\0"s);
    EXPECT_EQ(QueryAt("Software\\A", "list", true).bytes.size(), 2 * rows[4].bytes.size());
    EXPECT_EQ(QueryAt("Software\\A", "hex", true).bytes, "\x10\0\0\0"s);
}

TEST_F(Registry, TellsTheSizeThatIsNeeded)
{
    settings.SetText("tcpEnabled", "true");
    Key key;
    ASSERT_EQ(RegistryOpen(RegistryRoot::LocalMachine, kPlugin, kRegKeyRead, &key.handle), kErrorSuccess);
    char room[5] = {'x', 'x', 'x', 'x', 'x'};
    uint32_t size = 4;
    EXPECT_EQ(RegistryQuery(key.handle, "TCPENABLED", false, nullptr, room, &size), kErrorMoreData);
    EXPECT_EQ(size, 5U);
    EXPECT_EQ(std::memcmp(room, "xxxxx", 5), 0);
    EXPECT_EQ(RegistryQuery(key.handle, "tcpEnabled", false, nullptr, room, &size), kErrorSuccess);
    EXPECT_STREQ(room, "true");
}

TEST_F(Registry, KeysAreThereWithTheirParentsAndWithoutCase)
{
    settings.CreateKey();
    const struct {
        const char *path;
        uint32_t error;
    } rows[] = {
        {kPlugin, kErrorSuccess},          {"Software\\ORVANE, inc.", kErrorSuccess},
        {"SOFTWARE\\", kErrorSuccess},     {"", kErrorSuccess},
        {"SOFT", kErrorFileNotFound},      {"SOFTWARE\\Orvane, Inc.\\x", kErrorFileNotFound},
        {"\\SOFTWARE", kErrorBadPathname}, {"SOFTWARE\\\\Orvane, Inc.", kErrorBadPathname},
        {"\xFF", kErrorInvalidParameter},
    };
    for (const auto &row : rows) {
        Key key;
        EXPECT_EQ(RegistryOpen(RegistryRoot::LocalMachine, row.path, kRegKeyRead, &key.handle), row.error)
            << row.path;
    }
    Key other;
    EXPECT_EQ(RegistryOpen(RegistryRoot::CurrentUser, kPlugin, kRegKeyRead, &other.handle),
              kErrorFileNotFound);
    EXPECT_EQ(RegistryClose(nullptr), kErrorInvalidHandle);
}

TEST_F(Registry, WhatIsSetIsReadBackInBothWidths)
{
    Key key;
    ASSERT_EQ(RegistryCreate(RegistryRoot::LocalMachine, kPlugin, kRegKeyAllAccess, &key.handle),
              kErrorSuccess);
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
        {kRegMultiSz, "\0"s, "\0"s},
        {kRegDword, "\1\2\3\4"s, "\1\2\3\4"s},
        {kRegQword, "\1\2\3\4\5\6\7\xFF"s, "\1\2\3\4\5\6\7\xFF"s},
        {kRegBinary, "\0\xFF"s, "\0\xFF"s},
        {kRegBinary, ""s, ""s},
    };
    for (const auto &row : rows) {
        for (const bool wide : {false, true}) {
            std::string bytes = row.bytes;
            const bool isText = row.type == kRegSz || row.type == kRegExpandSz || row.type == kRegMultiSz;
            if (wide && isText) {
                bytes.clear();
                for (const char c : row.bytes) // all ASCII
                    bytes.append({c, '\0'});
            }
            ASSERT_EQ(RegistrySet(key.handle, "Value", row.type, wide, bytes.data(),
                                  static_cast<uint32_t>(bytes.size())),
                      kErrorSuccess);
            const Answer answer = Query(key.handle, "value");
            EXPECT_EQ(answer.error, kErrorSuccess) << row.kept;
            EXPECT_EQ(answer.type, row.type) << row.kept;
            EXPECT_EQ(answer.bytes, row.kept);
        }
    }
    for (const auto &[name, type, size] :
         {std::tuple("a=b", kRegDword, 4U), {"a", kRegDword, 3U}, {"a", kRegNone, 0U}})
        EXPECT_EQ(RegistrySet(key.handle, name, type, false, "1234", size), kErrorInvalidParameter);
    EXPECT_EQ(RegistrySet(key.handle, "", kRegSz, false, "unnamed", 8), kErrorSuccess);
    EXPECT_EQ(Query(key.handle, "").bytes, "unnamed\0"s);
    EXPECT_EQ(RegistryDeleteValue(key.handle, "VALUE"), kErrorSuccess);
    EXPECT_EQ(RegistryDeleteValue(key.handle, "VALUE"), kErrorFileNotFound);
    EXPECT_EQ(Query(key.handle, "Value").error, kErrorFileNotFound);
}

TEST_F(Registry, AWriterKeepsWhatItDoesNotChange)
{
    WriteFile(
        "# a comment\n[SOFTWARE\\Other]\nx=dword:1\n\n[software\\FODR]\n# mine\ntcpenabled=false\nb=2\n");
    chmod(FilePath().c_str(), 0600);
    Key key;
    ASSERT_EQ(RegistryCreate(RegistryRoot::LocalMachine, "Software\\fodr", kRegKeyAllAccess, &key.handle),
              kErrorSuccess);
    ASSERT_EQ(RegistrySet(key.handle, "tcpEnabled", kRegSz, false, "true", 5), kErrorSuccess);
    EXPECT_EQ(Query(key.handle, "tcpEnabled").bytes, "true\0"s);
    const std::string text = ReadFile();
    for (const char *kept : {"# a comment\n", "x=dword:1\n", "[software\\FODR]\n", "b=2\n"})
        EXPECT_NE(text.find(kept), std::string::npos) << kept << text;
    EXPECT_EQ(text.find("false"), std::string::npos) << text;
    EXPECT_EQ(std::filesystem::status(FilePath()).permissions(), std::filesystem::perms(0600));
}

TEST_F(Registry, DeletingAKeyLeavesItsParent)
{
    Key key;
    ASSERT_EQ(RegistryCreate(RegistryRoot::LocalMachine, kPlugin, kRegKeyAllAccess, &key.handle),
              kErrorSuccess);
    Key parent;
    ASSERT_EQ(RegistryOpen(RegistryRoot::LocalMachine, "SOFTWARE\\Orvane, Inc.\\Orvane ODPService\\Plugins",
                           kRegKeyAllAccess, &parent.handle),
              kErrorSuccess);
    Key top;
    ASSERT_EQ(RegistryOpen(RegistryRoot::LocalMachine, "", kRegKeyAllAccess, &top.handle), kErrorSuccess);
    EXPECT_EQ(RegistryDelete(top.handle, "software"), kErrorAccessDenied);
    EXPECT_EQ(RegistryDelete(parent.handle, "FODR"), kErrorSuccess);
    EXPECT_EQ(RegistryDelete(parent.handle, "fodr"), kErrorFileNotFound);
    EXPECT_EQ(Query(key.handle, "dll").error, kErrorKeyDeleted);
    EXPECT_EQ(Query(parent.handle, "dll").error, kErrorFileNotFound);
}

TEST_F(Registry, AMalformedFileCountsAsEmptyIsSaidOnceAndIsNeverOverwritten)
{
    settings.SetText("tcpEnabled", "true");
    ASSERT_EQ(QueryAt(kPlugin, "tcpEnabled").error, kErrorSuccess);
    const std::string broken = "[SOFTWARE\\fodr\ntcpEnabled=sz:true\n";
    WriteFile(broken);
    Key key;
    for (const char *path : {kPlugin, "SOFTWARE\\fodr"}) // which may be meant to be there
        EXPECT_EQ(RegistryOpen(RegistryRoot::LocalMachine, path, kRegKeyRead, &key.handle),
                  kErrorInvalidData);
    EXPECT_EQ(RegistryCreate(RegistryRoot::LocalMachine, kPlugin, kRegKeyAllAccess, &key.handle),
              kErrorInvalidData);
    EXPECT_EQ(ReadFile(), broken);
    ASSERT_EQ(complaints.size(), 1U);
    EXPECT_NE(complaints[0].find(FilePath()), std::string::npos);
    EXPECT_EQ(complaints[0].find('\n'), std::string::npos);

    settings.SetText("tcpEnabled", "false");
    EXPECT_EQ(QueryAt(kPlugin, "tcpEnabled").bytes, "false\0"s);
    EXPECT_EQ(complaints.size(), 1U);
}

TEST_F(Registry, ASentenceThatNobodyTookIsSaidAgain)
{
    WriteFile("nonsense\n");
    static int offers;
    offers = 0;
    SetRegistryComplaintHandler([](const char *) { return ++offers == 2; });
    for (int n = 0; n < 4; ++n)
        QueryAt(kPlugin, "dll");
    EXPECT_EQ(offers, 2);
}

// Rewritten in place with the same size: nothing but the content tells.
TEST_F(Registry, EveryRewriteIsSeenAtOnce)
{
    for (int n = 0; n < 300; ++n) {
        WriteFile("[A]\nn=dword:" + std::to_string(n % 10) + "\n");
        ASSERT_EQ(QueryAt("A", "n").bytes[0], n % 10);
    }
}

TEST_F(Registry, WritersDontLoseEachOthersValuesAndReadersNeverSeeHalfAFile)
{
    Key key;
    ASSERT_EQ(RegistryCreate(RegistryRoot::LocalMachine, kPlugin, kRegKeyAllAccess, &key.handle),
              kErrorSuccess);
    ASSERT_EQ(RegistrySet(key.handle, "z", kRegDword, false, "1234", 4), kErrorSuccess);
    std::atomic<bool> done = false;
    std::thread reader([&] {
        while (!done)
            EXPECT_EQ(QueryAt(kPlugin, "z").bytes, "1234");
    });
    test::AtOnce(3, [](int which) {
        for (int n = 0; n < 20; ++n) {
            Key own;
            RegistryOpen(RegistryRoot::LocalMachine, kPlugin, kRegKeyAllAccess, &own.handle);
            RegistrySet(own.handle, std::to_string(20 * which + n), kRegSz, false, "x", 2);
        }
    });
    done = true;
    reader.join();
    for (int n = 0; n < 60; ++n)
        EXPECT_EQ(Query(key.handle, std::to_string(n)).error, kErrorSuccess);
    EXPECT_TRUE(complaints.empty());
}

} // namespace
} // namespace fodr::platform
