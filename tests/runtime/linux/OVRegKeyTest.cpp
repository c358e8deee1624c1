#include "runtime/OVRegKey.h"

#include "SettingsFixture.h"
#include "runtime/CapturedLog.h"
#include "runtime/OVRegValue.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace fodr {
namespace {

using Lines = std::vector<std::string>;

class RegKey : public testing::Test {
protected:
    const test::SettingsFixture settings;
};

TEST_F(RegKey, OpensByTheRootsNamesAndEitherSeparator)
{
    settings.Store("[Software\\A]\n[Software\\a/b]\n");
    const struct {
        const char *path;
        uint32_t error;
        Lines log;
    } rows[] = {
        {"HKLM\\Software\\A", 0, {}},
        {"hkey_local_machine/software\\a", 0, {}},
        {"HKLM\\Software\\a/b", 0, {}},
        {"HKLM\\Software\\None", 2, {}},
        {"HKCU\\Software\\A", 2, {}},
        {"HKCR\\x", 2, {}},
        {"HKEY_CURRENT_CONFIG\\x", 2, {}},
        {"HKU\\x", 2, {}},
        {"", 11, {"W OVRegKey::OpenKey(): Missing root key \"\""}},
        {"HKLM", 11, {"W OVRegKey::OpenKey(): Missing root key \"HKLM\""}},
        {"HKXX\\A", 11, {"W OVRegKey::OpenKey(): Invalid root key \"HKXX\\A\""}},
        {"HKLM\\", 11, {"W OVRegKey::OpenKey(): Missing key name \"HKLM\\\""}},
        {"HKLM\\\\A", 161, {"E OVRegKey::OpenKey(): RegOpenKeyEx(HKLM\\\\A) failed; (161) Invalid path"}},
    };
    for (const auto &row : rows) {
        CapturedLog log(LOG_LEVEL_VERBOSE);
        OVRegKey key(row.path);
        EXPECT_EQ(key.OpenKey(), row.error) << row.path;
        EXPECT_EQ(key.OpenKey(), row.error) << row.path;
        EXPECT_EQ(key.CloseKey(), 0U);
        EXPECT_EQ(key.CloseKey(), 0U);
        Lines twice = row.log;
        twice.insert(twice.end(), row.log.begin(), row.log.end());
        EXPECT_EQ(CapturedLog::Lines(), twice);
    }
}

TEST_F(RegKey, TheDisplayPathShowsTheOtherView)
{
    const struct {
        const char *path;
        RegView view;
        const char *shown;
    } rows[] = {
        {"HKLM\\SOFTWARE\\A\\B", Win32Default, "HKLM\\SOFTWARE\\A\\B"},
        {"HKLM\\SOFTWARE\\A\\B", Reg64Bit, "HKLM\\SOFTWARE\\A\\B"},
        {"HKLM\\SOFTWARE\\A\\B", Alternate, "HKLM\\SOFTWARE\\WOW6432Node\\A\\B"},
        {"HKLM\\SOFTWARE\\A\\B", Reg32Bit, "HKLM\\SOFTWARE\\WOW6432Node\\A\\B"},
        {"HKLM\\Software\\A", Reg32Bit, "HKLM\\Software\\A"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(OVRegKey(row.path, row.view).GetDisplayPath(), row.shown);
}

TEST_F(RegKey, ValuesConvertByTheirType)
{
    settings.Store(
        "[A]\ntrue=TRUE\nyes=yes\nno=No\nzero=0\ntwo=2\nhex=0x1F\noctal=010\nempty=\numlaut=\xC3\xA4\n"
        "list=multi_sz:1;x;\nexpand=expand_sz:7 apples\ndword=dword:4294967295\ndnull=dword:0\n"
        "qword=qword:18446744073709551615\nqhigh=qword:0x100000000\n"
        "b0=binary:\nb1=binary:00\nb3=binary:010203\nb7=binary:01020304050607\nb9=binary:"
        "0102030405060708ff\n");
    const struct {
        const char *name;
        int asBool; // -1: the default
        uint64_t asNumber;
        const char *text; // null: the default
    } rows[] = {
        {"true", 1, 77, "TRUE"},
        {"yes", 1, 77, "yes"},
        {"no", 0, 77, "No"},
        {"zero", 0, 0, "0"},
        {"two", -1, 2, "2"},
        {"hex", -1, 31, "0x1F"},
        {"octal", -1, 8, "010"},
        {"empty", -1, 77, ""},
        {"umlaut", -1, 77, "\xC3\xA4"},
        {"list", 1, 1, "1"},
        {"expand", -1, 7, "7 apples"},
        {"dword", 1, 0xFFFFFFFF, "4294967295"},
        {"dnull", 0, 0, "0"},
        {"qword", 1, 0xFFFFFFFFFFFFFFFF, "-1"},
        {"qhigh", 1, 0x100000000, "4294967296"},
        {"b0", 0, 77, ""},
        {"b1", 0, 0, "00"},
        {"b3", 1, 0x0201, "01 02 03"},
        {"b7", 1, 0x04030201, "01 02 03 04 05 06 07"},
        {"b9", 1, 0x0807060504030201, "01 02 03 04 05 06 07 08 ff"},
        {"missing", -1, 77, nullptr},
    };
    for (const auto &row : rows) {
        for (const bool wide : {false, true}) {
            OVRegValue value("HKLM/A", row.name);
            EXPECT_EQ(value.Load(wide, LOG_LEVEL_VERBOSE), row.text != nullptr) << row.name;
            for (const bool fallback : {false, true})
                EXPECT_EQ(value.ToBool(fallback), row.asBool < 0 ? fallback : row.asBool == 1) << row.name;
            EXPECT_EQ(value.ToQword(77), row.asNumber) << row.name;
            EXPECT_EQ(value.ToDword(77), static_cast<uint32_t>(row.asNumber)) << row.name;
            std::string text;
            EXPECT_EQ(value.ToString(text, "default"), row.text != nullptr) << row.name;
            EXPECT_EQ(text, row.text ? row.text : "default") << row.name;
            std::u16string wideText;
            EXPECT_EQ(value.ToWideString(wideText, u"default"), row.text != nullptr) << row.name;
            EXPECT_EQ(wideText.size(), row.name == std::string("umlaut") ? 1 : text.size()) << row.name;
        }
    }
    EXPECT_EQ(ReadRegistryString("HKLM\\A\\two"), "2");
    EXPECT_EQ(ReadRegistryString64Bit("HKLM\\A/list"), "1");
    EXPECT_EQ(ReadRegistryString("HKLM\\A\\missing"), "");
    EXPECT_EQ(ReadRegistryString("no path"), "");
}

TEST_F(RegKey, LoadTellsWhetherTheValueIsAnother)
{
    settings.Store("[SOFTWARE\\A]\nx=ab\n");
    OVRegValue value("HKLM\\SOFTWARE\\A\\x", Reg32Bit);
    const std::string name = "\"HKLM\\SOFTWARE\\A\\x\"";
    CapturedLog log(LOG_LEVEL_DEBUG);
    EXPECT_TRUE(value.Load(false, LOG_LEVEL_DEBUG));
    EXPECT_FALSE(value.Load(false, LOG_LEVEL_DEBUG));
    settings.Store("[SOFTWARE\\A]\ny=1\nx=ab\n");
    EXPECT_FALSE(value.Load(false, LOG_LEVEL_DEBUG));
    EXPECT_FALSE(value.Load(false, LOG_LEVEL_VERBOSE)); // and says nothing
    settings.Store("[SOFTWARE\\A]\nx=ac\n");
    EXPECT_TRUE(value.Load(false, LOG_LEVEL_DEBUG));
    const Lines lines = CapturedLog::Lines();
    ASSERT_EQ(lines.size(), 8U);
    EXPECT_EQ(lines[0], "D OVRegValue::LogData(): " + value.GetFullPath() +
                            "  Location(Reg32Bit/WOW64)  Type(REG_SZ/A)  Size(3)\n" + std::string(63, ' ') +
                            "0x0000: 61 62 00 " + std::string(3 * 17, ' ') + "ab." + std::string(18, ' ') +
                            "\n");
    EXPECT_EQ(lines[1], "D OVRegValue::Load(): " + name + " has changed");
    EXPECT_EQ(lines[3], "D OVRegValue::Load(): " + name + " has not changed");
    EXPECT_EQ(lines[5], lines[3]);
    EXPECT_EQ(lines[7], lines[1]);
}

TEST_F(RegKey, AFailedLoadForgetsTheValue)
{
    settings.Store("[A]\nx=1\n");
    OVRegValue value("HKLM\\A", "x");
    EXPECT_TRUE(value.Load(false, LOG_LEVEL_DEBUG));
    value.Clear(true);
    EXPECT_TRUE(value.IsLoaded());
    CapturedLog log(LOG_LEVEL_DEBUG);
    settings.Store("[A]\ny=1\n");
    EXPECT_FALSE(value.Load(false, LOG_LEVEL_DEBUG));
    EXPECT_FALSE(value.IsLoaded());
    EXPECT_EQ(value.ToDword(5), 5U);
    EXPECT_EQ(value.GetHandle(), nullptr);
    settings.Store("");
    EXPECT_FALSE(value.Load(false, LOG_LEVEL_DEBUG));
    EXPECT_EQ(CapturedLog::Lines(), (Lines{"D OVRegValue::Load(): RegQueryValueEx(\"HKLM\\A\\x\") failed",
                                           "D OVRegValue::Load(): RegOpenKeyEx(\"HKLM\\A\") failed"}));
}

TEST_F(RegKey, AMalformedFileIsOneLogLineAsSoonAsThereIsALog)
{
    settings.Store("[A\n");
    EXPECT_EQ(ReadRegistryString("HKLM\\A\\x"), ""); // at the level of no log
    CapturedLog log(LOG_LEVEL_INFO);
    for (int n = 0; n < 3; ++n)
        EXPECT_EQ(ReadRegistryString("HKLM\\A\\x"), "");
    ASSERT_EQ(CapturedLog::Lines().size(), 1U);
    EXPECT_NE(CapturedLog::Lines()[0].find("is malformed and counts as empty"), std::string::npos);
}

} // namespace
} // namespace fodr
