#include "lib/unicode/NameMapping.h"

#include "lib/unicode/CodeSet.h"
#include "lib/unicode/ForeignText.h"

#include <gtest/gtest.h>
#include <map>
#include <random>
#include <string>
#include <utility>

namespace fodr {
namespace {

using namespace std::string_literals;

std::string Posix(std::u16string_view name)
{
    std::string out = "old";
    if (PosixNameFromNt(name, out))
        return out;
    EXPECT_EQ("", out);
    return "refused";
}

TEST(NameMapping, MapsWhatNtNamesCannotHold)
{
    const std::pair<std::string, std::u16string> cases[] = {
        {"", u""},
        {"plain name.txt", u"plain name.txt"},
        {"caf\u00E9 \U0001F600", u"caf\u00E9 \U0001F600"},
        {"a\"*<>?|:\\b", u"a\uF022\uF02A\uF03C\uF03E\uF03F\uF07C\uF03A\uF05Cb"},
        {"\x01\x1F\x7F", u"\uF001\uF01F\x7F"},
        {"latin\xE9.txt", u"latin\uF7E9.txt"},
        {"\xC3", u"\uF7C3"},
        {"\xC0\x80", u"\uF7C0\uF780"},
        {"\xED\xA0\x80", u"\uF7ED\uF7A0\uF780"}, // a surrogate
        // Private code points that the mapping gives: their bytes, so that "*" keeps its name to itself.
        {"\uF02A", u"\uF7EF\uF780\uF7AA"},
        {"\uF7E9", u"\uF7EF\uF79F\uF7A9"},
        // Neighbours that it never gives are plain characters.
        {"\uF000\uF041\uF020\uF700\uF77F\uF800", u"\uF000\uF041\uF020\uF700\uF77F\uF800"},
    };
    for (const auto &[posix, nt] : cases) {
        EXPECT_EQ(nt, NtNameFromPosix(posix)) << testing::PrintToString(posix);
        EXPECT_EQ(posix, Posix(nt)) << testing::PrintToString(posix);
    }
}

TEST(NameMapping, RefusesNtNamesThatNoPosixNameHas)
{
    const std::u16string cases[] = {
        u"a/b"s,
        u"a\0b"s,
        u"a*"s,
        u"a:b"s,
        u"a\\b"s,
        u"\x1F"s,
        u"\xD800"s,
        u"x\xDC00"s,
        u"\uF7C3\uF7A9"s,             // bytes that are a valid character
        u"\uF7C3\u00A9\uF7C3\uF7A9"s, // ... behind ones that aren't
        u"\uF7EF\uF780\uF780"s,       // bytes of U+F000, which is no name of the mapping
    };
    for (const std::u16string &name : cases)
        EXPECT_EQ("refused", Posix(name)) << testing::PrintToString(name);
}

TEST(NameMapping, MapsPathsByComponent)
{
    const std::pair<std::string, std::u16string> cases[] = {
        {"", u""}, {"/", u"\\"}, {"/a/b?/", u"\\a\\b\uF03F\\"}, {"a//\xFF", u"a\\\\\uF7FF"}};
    for (const auto &[posix, nt] : cases) {
        EXPECT_EQ(nt, NtPathFromPosix(posix));
        std::string back;
        EXPECT_TRUE(PosixPathFromNt(nt, back));
        EXPECT_EQ(posix, back);
    }
    std::string path;
    EXPECT_TRUE(PosixPathFromNt(u"a/b\\c", path));
    EXPECT_EQ("a/b/c", path);
    EXPECT_FALSE(PosixPathFromNt(u"a\\b*\\c", path));
    // Bytes must not join across a separator.
    EXPECT_TRUE(PosixPathFromNt(u"\uF7C3\\\uF7A9", path));
    EXPECT_EQ("\xC3/\xA9", path);
}

// Names made of pieces that are likely to collide: separators of sequences, mapped characters, private ones.
std::string RandomName(std::mt19937 &random)
{
    static const std::string kPieces[] = {
        "a",      "*",    "\\",   "\x01", "\x7F", "\uF02A",   "\uF7C3",   "\uF7A9",     "\uF780",   "\uF000",
        "\u00E9", "\xC3", "\xA9", "\xEF", "\x80", "\xF0\x9F", "\x98\x80", "\U0001F600", "\xED\xA0", "\xFF"};
    std::string name;
    for (auto left = random() % 6; left > 0; --left) {
        if (random() % 4 == 0) {
            const char byte = static_cast<char>(1 + random() % 255);
            name += byte == '/' ? '.' : byte;
        } else {
            name += kPieces[random() % std::size(kPieces)];
        }
    }
    return name;
}

TEST(NameMapping, IsOneToOneForAllBytes)
{
    std::mt19937 random(20240229);
    std::map<std::u16string, std::string> seen;
    for (int i = 0; i < 60000; ++i) {
        const std::string name = RandomName(random);
        const std::u16string nt = NtNameFromPosix(name);
        std::string back;
        ASSERT_TRUE(PosixNameFromNt(nt, back)) << testing::PrintToString(name);
        ASSERT_EQ(name, back) << testing::PrintToString(name);
        ASSERT_EQ(std::u16string::npos, nt.find_first_of(u"\"*<>?|:\\/"));
        const auto [entry, isNew] = seen.emplace(nt, name);
        ASSERT_EQ(entry->second, name) << testing::PrintToString(nt);
    }
}

// The other direction: what is accepted comes out again as the very same name.
TEST(NameMapping, AcceptsOnlyNamesThatItGives)
{
    std::mt19937 random(7);
    int accepted = 0;
    for (int i = 0; i < 60000; ++i) {
        std::u16string nt;
        for (auto left = 1 + random() % 4; left > 0; --left) {
            static constexpr char16_t kBases[] = {0x0000, 0x00C0, 0xF000, 0xF780, 0xF7C0, 0xD800, 0xDC00};
            nt += static_cast<char16_t>(kBases[random() % std::size(kBases)] + random() % 0x40);
        }
        std::string posix;
        if (PosixNameFromNt(nt, posix)) {
            ++accepted;
            ASSERT_EQ(nt, NtNameFromPosix(posix)) << testing::PrintToString(nt);
        }
    }
    EXPECT_GT(accepted, 1000);
}

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
} // namespace fodr
