#include "runtime/OVRegKey.h"

#include "SettingsFixture.h"
#include "runtime/CapturedLog.h"

#include <gtest/gtest.h>
#include <optional>
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
    const std::tuple<const char *, uint32_t, Lines> rows[] = {
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
    for (const auto &[path, error, said] : rows) {
        OVRegKey key(path);
        for (int time = 0; time < 2; ++time) {
            const CapturedLog log(LOG_LEVEL_VERBOSE);
            EXPECT_EQ(key.OpenKey(), error) << path;
            EXPECT_EQ(CapturedLog::Lines(), said);
        }
        EXPECT_TRUE(key.CloseKey() == 0 && key.CloseKey() == 0);
    }
}

// The store's own complaint is all that is said.
TEST_F(RegKey, AStoreThatCantBeReadHasNoKeysAndAMalformedValueIsNone)
{
    settings.Store("[a]\nv=dword:1\nw=dword:x\n");
    OVRegValue v("HKLM\\a", "v"), w("HKLM\\a", "w");
    EXPECT_TRUE(v.Load(false, LOG_LEVEL_VERBOSE));
    EXPECT_FALSE(w.Load(false, LOG_LEVEL_VERBOSE) || w.IsLoaded());
    settings.Store("[a\nv=dword:1\n");
    const CapturedLog log(LOG_LEVEL_INFO);
    EXPECT_EQ(OVRegKey("HKLM\\a").OpenKey(), 2u);
    EXPECT_FALSE(v.Load(false, LOG_LEVEL_VERBOSE) || v.IsLoaded());
    ASSERT_EQ(CapturedLog::Lines().size(), 1u);
    EXPECT_EQ(CapturedLog::Lines()[0].find("W OVRegKey::OpenKey(): Settings file "), 0u);
}

TEST_F(RegKey, TheDisplayPathShowsTheOtherView)
{
    const std::tuple<const char *, RegView, const char *> rows[] = {
        {"HKLM\\SOFTWARE\\A\\B", Win32Default, "HKLM\\SOFTWARE\\A\\B"},
        {"HKLM\\SOFTWARE\\A\\B", Reg64Bit, "HKLM\\SOFTWARE\\A\\B"},
        {"HKLM\\SOFTWARE\\A\\B", Alternate, "HKLM\\SOFTWARE\\WOW6432Node\\A\\B"},
        {"HKLM\\SOFTWARE\\A\\B", Reg32Bit, "HKLM\\SOFTWARE\\WOW6432Node\\A\\B"},
        {"HKLM\\Software\\A", Reg32Bit, "HKLM\\Software\\A"},
    };
    for (const auto &[path, view, shown] : rows)
        EXPECT_EQ(OVRegKey(path, view).GetDisplayPath(), shown);
}

TEST_F(RegKey, ValuesConvertByTheirType)
{
    const struct {
        const char *stored;
        int asBool; // -1: the default
        uint64_t asNumber;
        const char *text;                     // null: the default
        std::optional<uint32_t> asDword = {}; // none: the low part
    } rows[] = {
        {"value=TRUE", 1, 77, "TRUE"},
        {"value=yes", 1, 77, "yes"},
        {"value=No", 0, 77, "No"},
        {"value=0", 0, 0, "0"},
        {"value=2", -1, 2, "2"},
        {"value=0x1F", -1, 31, "0x1F"},
        {"value=010", -1, 8, "010"},
        {"value=", -1, 77, ""},
        {"value=\xC3\xA4", -1, 77, "\xC3\xA4"},
        {"value=multi_sz:1;x;", 1, 1, "1"},
        {"value=expand_sz:7 apples", -1, 7, "7 apples"},
        {"value=4294967306", -1, 4294967306, "4294967306", 0xFFFFFFFF}, // too large for 32 bits
        {"value=dword:4294967295", 1, 0xFFFFFFFF, "4294967295"},
        {"value=dword:0", 0, 0, "0"},
        {"value=qword:18446744073709551615", 1, 0xFFFFFFFFFFFFFFFF, "-1"},
        {"value=qword:0x100000000", 1, 0x100000000, "4294967296"},
        {"value=binary:", 0, 77, ""},
        {"value=binary:00", 0, 0, "00"},
        {"value=binary:010203", 1, 0x0201, "01 02 03"},
        {"value=binary:01020304050607", 1, 0x04030201, "01 02 03 04 05 06 07"},
        {"value=binary:0102030405060708ff", 1, 0x0807060504030201, "01 02 03 04 05 06 07 08 ff"},
        {"another=1", -1, 77, nullptr},
    };
    for (const auto &row : rows) {
        settings.Store(std::string("[A]\n") + row.stored);
        for (const bool wide : {false, true}) {
            OVRegValue value("HKLM/A", "value");
            EXPECT_EQ(value.Load(wide, LOG_LEVEL_VERBOSE), row.text != nullptr) << row.stored;
            for (const bool fallback : {false, true})
                EXPECT_EQ(value.ToBool(fallback), row.asBool < 0 ? fallback : row.asBool == 1) << row.stored;
            EXPECT_EQ(value.ToQword(77), row.asNumber) << row.stored;
            EXPECT_EQ(value.ToDword(77), row.asDword.value_or(static_cast<uint32_t>(row.asNumber)))
                << row.stored;
            std::string text;
            EXPECT_EQ(value.ToString(text, "default"), row.text != nullptr) << row.stored;
            EXPECT_EQ(text, row.text ? row.text : "default") << row.stored;
            std::u16string wideText;
            EXPECT_EQ(value.ToWideString(wideText, u"default"), row.text != nullptr) << row.stored;
            EXPECT_EQ(wideText.size(), text == "\xC3\xA4" ? 1 : text.size()) << row.stored;
        }
    }
    settings.Store("[A]\ntwo=2\nlist=multi_sz:1;x;\n");
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
