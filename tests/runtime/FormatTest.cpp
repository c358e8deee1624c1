#include "runtime/OVTimer.h"
#include "runtime/StringUtils.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace fodr::StringUtils {
namespace {

TEST(FormatBuffer, StoresWhatFitsAndGivesItsLength)
{
    char buffer[8] = "old";
    EXPECT_EQ(7, FormatBuffer(buffer, sizeof(buffer), "%d", 1234567));
    EXPECT_EQ(7, FormatBuffer(buffer, sizeof(buffer), "%s", "12345678"));
    EXPECT_STREQ("1234567", buffer);
    EXPECT_EQ(0, FormatBuffer(buffer, 1, "%s", "x"));
    EXPECT_STREQ("", buffer);
    char16_t wide[4];
    EXPECT_EQ(3, FormatBuffer(wide, 4, "%s", "\u00E4\u00F6\u00FC\u00DF"));
    EXPECT_EQ(u"\u00E4\u00F6\u00FC", std::u16string(wide));
    EXPECT_LT(FormatBuffer(wide, 4, "%s", "\xFF"), 0);
    for (size_t length : {0u, 255u, 256u, 5000u}) {
        const std::string text(length, 'x');
        EXPECT_EQ(text + "7", Format("%s%d", text.c_str(), 7));
    }
}

TEST(StringUtils, EndsWith)
{
    EXPECT_TRUE(EndsWith("file.LOG", ".log", false) && EndsWith("a", "", true) &&
                EndsWith("abc", "bc", true));
    EXPECT_FALSE(EndsWith("file.LOG", ".log", true) || EndsWith("g", "log", false) ||
                 EndsWith(nullptr, "", true) || EndsWith("a", nullptr, true));
}

TEST(StringUtils, JoinsAndCutsPaths)
{
    const std::string separator(1, static_cast<char>(std::filesystem::path::preferred_separator));
    const std::string joins[][3] = {{"", "name", "name"},
                                    {"folder", "name", "folder" + separator + "name"},
                                    {"folder/", "name", "folder/name"},
                                    {"folder\\", "name", "folder\\name"},
                                    {"folder", "/name", "folder/name"}};
    for (const auto &[folder, name, path] : joins)
        EXPECT_EQ(path, JoinPath(folder, name));
    const std::pair<const char *, const char *> parents[] = {
        {"name", "."},   {"", "."},
        {"/a", "/"},     {"/", "/"},
        {"/a/b", "/a"},  {"a/b\\c", "a/b"},
        {"a/b/", "a/b"}, {"C:\\a", "C:\\"},
        {"C:/", "C:/"},  {"C:\\a\\b", "C:\\a"},
        {"ab/c", "ab"},  {"\\\\s\\x", "\\\\s"},
        {"C:a", "."},
    };
    for (auto [path, parent] : parents)
        EXPECT_EQ(parent, ParentPath(path)) << path;
}

TEST(XString, MakesTheOtherFormOnce)
{
    XString text;
    EXPECT_EQ(nullptr, text.GetNarrow());
    EXPECT_EQ(nullptr, text.GetWide());
    text.SetNarrow("caf\u00E9", false);
    const char16_t *wide = text.GetWide();
    EXPECT_EQ(u"caf\u00E9", std::u16string(wide));
    EXPECT_EQ(wide, text.GetWide());
    text.SetWide(u"\U0001F600", false);
    EXPECT_STREQ("\U0001F600", text.GetNarrow());
    text.SetNarrow(strdup("owned"), true); // the leak check tells whether it is freed
    EXPECT_STREQ("owned", text.GetNarrow());
    text.SetNarrow("\xFF", false);
    EXPECT_EQ(nullptr, text.GetWide());
    text.SetWide(nullptr, true);
    EXPECT_STREQ("", text.GetNarrow());
    text.SetNarrow(nullptr, true);
    EXPECT_EQ(u"", std::u16string(text.GetWide()));

    char *narrow = nullptr; // what it converts with gives Windows codes
    char16_t *none = nullptr;
    EXPECT_EQ(1113u, Utf8ToWide("\xC3", &none));
    EXPECT_EQ(1113u, WideToUtf8(u"\xD800", &narrow));
    EXPECT_EQ(87u, WideToUtf8(nullptr, &narrow));
    EXPECT_TRUE(!none && !narrow);
}

TEST(TimeStamp, HasOneFormForEachClock)
{
    char buffer[64];
    const int64_t leapDay = 1709211907042; // 2024-02-29 13:05:07.042 UTC
    EXPECT_EQ(24, FormatTimeStamp(buffer, sizeof(buffer), true, leapDay));
    EXPECT_STREQ("2024-02-29T13:05:07.042Z", buffer);
    FormatTimeStamp(buffer, sizeof(buffer), true, -1);
    EXPECT_STREQ("1969-12-31T23:59:59.999Z", buffer);
    EXPECT_EQ(23, FormatTimeStamp(buffer, sizeof(buffer), false, leapDay));
    EXPECT_EQ(' ', buffer[10]);
    EXPECT_STREQ(".042", buffer + 19);
    EXPECT_EQ(9, FormatTimeStamp(buffer, 10, true, leapDay));
}

TEST(Duration, HasShortAndLongForms)
{
    const std::tuple<double, int, const char *> cases[] = {
        {0.4999, 0, "0s"},
        {0.5, 0, "1s"},
        {59.9999, 0, "0:01:00"},
        {0.0, 3, "0ms"},
        {0.0427, 3, "42ms"}, // cut, not rounded
        {0.25, 6, "250000us"},
        {0.5, 9, "500000000ns"},
        {0.5, 2, "0.50s"},
        {60, 3, "0:01:00.000"},
        {3723.5, 1, "1:02:03.5"},
        {3723.5, 0, "1:02:04"},
        {86399.6, 0, "1 days 0:00:00"},
        {90061.25, 2, "1 days 1:01:01.25"},
        {8640000, -3, "100 days 0:00:00"},
        {0.5, 40, "0.00000000000009200000000000000000s"}, // 64 bits hold no more
    };
    for (const auto &[seconds, decimals, text] : cases)
        EXPECT_EQ(text, FormatDuration(seconds, decimals)) << seconds << " " << decimals;
    EXPECT_EQ("0s", FormatDuration(std::nan(""), 0));
}

TEST(ByteSize, SwitchesAtAThousandAndDividesBy1024)
{
    const std::tuple<double, int, const char *> cases[] = {
        {0, 1, "0.0B"},       {999, 1, "999.0B"},          {1000, 1, "1.0KB"},      {1024, 0, " 1KB"},
        {1536, 2, "1.50KB"},  {1024.0 * 1000, 1, "1.0MB"}, {5e9, 1, "4.7GB"},       {3e12, 0, " 3TB"},
        {1e15, 1, "909.5TB"}, {1.1e15, 1, "1.0PB"},        {1e21, 1, "888178.4PB"},
    };
    for (const auto &[bytes, precision, text] : cases)
        EXPECT_EQ(text, FormatByteSize(bytes, precision)) << bytes;
}

// The dump into a buffer of exactly this size, so that a write past it is noticed.
std::string Dump(const std::string &data, size_t size, int perLine, int indent)
{
    std::vector<char> buffer(size, '#');
    const size_t written = HexDump(buffer.data(), size, data.data(), data.size(), perLine, indent);
    EXPECT_LT(written, size);
    EXPECT_EQ(written, strlen(buffer.data()));
    return buffer.data();
}

TEST(HexDump, PrintsBothColumnsAsFarAsThereIsRoom)
{
    const std::string five("ABC\0\x7F", 5);
    const std::string three = "0x0000: 41 42 43 ABC \n", padded = "0x0003: 00 7F    ..  \n";
    const std::string first = "0x0000: 41 A \n", second = "0x0001: 42 B \n"; // 14 characters each
    const struct {
        std::string data;
        size_t size;
        int perLine, indent;
        std::string text;
    } rows[] = {
        {five, 200, 3, 0, three + padded},
        {five, 200, 3, 2, "  " + three + "  " + padded},
        {five, 200, 3, -2, three + "  " + padded},
        {"\xFE ", 200, 0, 0, "0x0000: FE . \n0x0001: 20   \n"},
        {"", 200, 16, 0, ""},
        {"AB", 29, 1, 0, first + second},
        {"AB", 28, 1, 0, first + "BUFFER TOO S\n"},
        {"AB", 17, 1, 0, first + "B\n"},
        {"AB", 16, 1, 0, first},
        {"AB", 14, 1, 0, "BUFFER TOO S\n"},
        {"AB", 60, 16, 0, "BUFFER TOO SMALL\n"},
        {"AB", 3, 1, 0, "B\n"},
        {"AB", 2, 1, 0, ""},
    };
    for (const auto &row : rows)
        EXPECT_EQ(row.text, Dump(row.data, row.size, row.perLine, row.indent)) << row.size;
    char one = 'x';
    EXPECT_EQ(0u, HexDump(nullptr, 10, "a", 1, 16, 0));
    EXPECT_EQ(0u, HexDump(&one, 0, "a", 1, 16, 0));
    EXPECT_EQ(0u, HexDump(&one, 1, nullptr, 1, 16, 0));
    EXPECT_EQ('x', one);
    EXPECT_EQ(0u, HexDump(&one, 1, nullptr, 0, 16, 0));
}

TEST(HexDump, StaysInsideWithLongOffsets)
{
    const std::string data(0x10010, 'x');
    for (size_t size : {data.size() * 14, data.size() * 14 + 1, data.size() * 14 + 17}) {
        const std::string text = Dump(data, size, 1, 0);
        EXPECT_NE(std::string::npos, text.find("0x10000: 78 x \n"));
    }
}

} // namespace
} // namespace fodr::StringUtils
