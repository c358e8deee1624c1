#include "lib/unicode/NameMapping.h"

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

} // namespace
} // namespace fodr
