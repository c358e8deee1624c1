#include "lib/unicode/CodeSet.h"
#include "lib/unicode/ForeignText.h"

#include <gtest/gtest.h>

namespace fodr::test {
namespace {

using namespace std::literals;

TEST(ShownText, NothingOfItSteersATerminalOrBreaksJson)
{
    const struct {
        std::string text, escaped, json;
    } cases[] = {
        {"", "", "\"\""},
        {"/home/me/d\xC3\xBC \xF0\x9F\x98\x80", "/home/me/d\xC3\xBC \xF0\x9F\x98\x80",
         "\"/home/me/d\xC3\xBC \xF0\x9F\x98\x80\""},
        {"a\"b\\c", "a\"b\\c", R"("a\"b\\c")"},
        {"\x1b]0;t\a\r\n\x7f\0"s, R"(\x1b]0;t\x07\x0d\x0a\x7f\x00)",
         R"("\u001b]0;t\u0007\u000d\u000a\u007f\u0000")"},
        {"\xC2\x9b\x33m", R"(\x9b3m)", R"("\u009b3m")"},
        {"a\xE2\x80\xAE\x62", R"(a\u202eb)", R"("a\u202eb")"},
        {"\xE2\x81\xA6\xE2\x80\xA8", R"(\u2066\u2028)", R"("\u2066\u2028")"},
        {"\xFFx\xC3", R"(\xffx\xc3)", "\"\xEF\xBF\xBDx\xEF\xBF\xBD\""},
        {"\xED\xA0\x80", R"(\xed\xa0\x80)", "\"\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\""},
        {"\xC0\xAF", R"(\xc0\xaf)", "\"\xEF\xBF\xBD\xEF\xBF\xBD\""},
    };
    std::u16string units;
    for (const auto &test : cases) {
        EXPECT_EQ(Escaped(test.text), test.escaped);
        EXPECT_EQ(QuotedJson(test.text), test.json);
        EXPECT_TRUE(Utf8ToUtf16(QuotedJson(test.text), units));
    }
}

TEST(ShownText, APlainPathIsAbsoluteAndHasNothingToEscape)
{
    for (const std::string &plain : {"/"s, "/mnt"s, "/mnt/d\xC3\xBC x/..."s, "/" + std::string(4095, 'a')})
        EXPECT_TRUE(IsPlainAbsolutePath(plain)) << plain;
    for (const std::string &other :
         {""s, "mnt"s, "./mnt"s, "//"s, "//mnt"s, "/mnt/"s, "/mnt//x"s, "/mnt/../etc"s, "/mnt/."s, "/.."s,
          "/mnt\n"s, "/mnt\0x"s, "/\x1b[2J"s, "/\xFF"s, "/a\xE2\x80\xAE"s, "-rf /"s, " /mnt"s,
          "/" + std::string(4096, 'a')})
        EXPECT_FALSE(IsPlainAbsolutePath(other)) << Escaped(other);
}

} // namespace
} // namespace fodr::test
