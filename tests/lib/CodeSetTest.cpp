#include "lib/unicode/CodeSet.h"

#include "lib/misc/ByteBuffer.h"
#include "lib/unicode/CaseFolding.h"
#include "lib/unicode/Utf8Text.h"

#include <cstring>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace fodr {
namespace {

using namespace std::string_literals;

// The result with its terminator checked, or nothing for a failure. Input sits in a block of its very size,
// so that reading past it is noticed.
std::optional<std::string> Convert(decltype(CodeSetUtf8ToUtf16le) convert, const std::string &input)
{
    MallocBuffer exact = MallocBuffer::Allocate(input.size());
    memcpy(exact.Data(), input.data(), input.size());
    char *out = reinterpret_cast<char *>(exact.Data());
    size_t length = 4711;
    if (!convert(exact.Data(), input.size(), &out, &length)) {
        EXPECT_EQ(nullptr, out);
        EXPECT_EQ(0u, length);
        return std::nullopt;
    }
    MallocBuffer owner(out, length);
    EXPECT_EQ(0, out[length]);
    EXPECT_EQ(0, out[length + 1]);
    return std::string(out, length);
}

std::string Utf16Bytes(std::u16string_view text)
{
    return {reinterpret_cast<const char *>(text.data()), text.size() * 2};
}

TEST(CodeSet, ConvertsBothWays)
{
    const std::pair<std::string, std::u16string> cases[] = {
        {"", u""},
        {"a", u"a"},
        {"exactly8", u"exactly8"},
        {"ascii, then \u00FC in the middle of a longer text",
         u"ascii, then \u00FC in the middle of a longer text"},
        {"embedded\0zero"s, u"embedded\0zero"s},
        {"\x7F\u0080\u07FF\u0800\uD7FF\uE000\uFFFF", u"\x7F\u0080\u07FF\u0800\uD7FF\uE000\uFFFF"},
        {"\U00010000\U0001F600\U0010FFFF", u"\U00010000\U0001F600\U0010FFFF"},
    };
    for (const auto &[utf8, utf16] : cases) {
        EXPECT_EQ(Utf16Bytes(utf16), Convert(CodeSetUtf8ToUtf16le, utf8)) << utf8;
        EXPECT_EQ(utf8, Convert(CodeSetUtf16leToUtf8, Utf16Bytes(utf16))) << utf8;
        std::string narrow = "old";
        std::u16string wide = u"old";
        EXPECT_TRUE(Utf16ToUtf8(utf16, narrow) && Utf8ToUtf16(utf8, wide));
        EXPECT_EQ(utf8, narrow);
        EXPECT_EQ(utf16, wide);
    }
}

TEST(CodeSet, RefusesWhatIsNotUtf8)
{
    const std::string cases[] = {
        "\x80"s,         "\xC0\x80"s,         "\xC1\xBF"s,         "\xF5\x80\x80\x80"s,
        "\xFF"s,                                                   // no lead bytes
        "\xC2"s,         "\xE2\x82"s,         "\xF0\x9F\x98"s,     // cut
        "\xC2\x41"s,     "\xE2\x28\xA1"s,     "\xF0\x9F\x98\x41"s, // no continuation
        "\xE0\x9F\xBF"s, "\xF0\x8F\xBF\xBF"s,                      // longer than needed
        "\xED\xA0\x80"s, "\xED\xBF\xBF"s,     "\xF4\x90\x80\x80"s, // surrogates, beyond Unicode
    };
    for (const std::string &bad : cases) {
        for (const std::string &text : {bad, "12345678" + bad, bad + "12345678"}) {
            EXPECT_EQ(std::nullopt, Convert(CodeSetUtf8ToUtf16le, text)) << testing::PrintToString(text);
            std::u16string wide = u"old";
            EXPECT_FALSE(Utf8ToUtf16(text, wide));
            EXPECT_EQ(u"", wide);
        }
    }
}

TEST(CodeSet, RefusesUnpairedSurrogatesAndOddLengths)
{
    const std::u16string cases[] = {u"\xDC00"s,       u"\xD800"s,  u"abcd\xD800"s,
                                    u"\xD800\xD800"s, u"\xD800x"s, u"\xDC00\xD800"s};
    for (const std::u16string &bad : cases) {
        EXPECT_EQ(std::nullopt, Convert(CodeSetUtf16leToUtf8, Utf16Bytes(bad)));
        std::string narrow = "old";
        EXPECT_FALSE(Utf16ToUtf8(bad, narrow));
        EXPECT_EQ("", narrow);
    }
    EXPECT_EQ(std::nullopt, Convert(CodeSetUtf16leToUtf8, "a"));
    EXPECT_EQ(std::nullopt, Convert(CodeSetUtf16leToUtf8, "a\0b"s));
    EXPECT_EQ("", Convert(CodeSetUtf16leToUtf8, ""));
}

TEST(CodeSet, EveryCodePointSurvivesTheRoundTrip)
{
    std::u16string all;
    for (char32_t c = 0; c <= 0x10FFFF; ++c) {
        if (c >= 0xD800 && c < 0xE000)
            continue;
        if (c < 0x10000) {
            all += static_cast<char16_t>(c);
        } else {
            all += static_cast<char16_t>(0xD7C0 + (c >> 10));
            all += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
        }
    }
    std::string narrow;
    std::u16string back;
    ASSERT_TRUE(Utf16ToUtf8(all, narrow) && Utf8ToUtf16(narrow, back));
    EXPECT_TRUE(all == back);
}

TEST(UnicodeGetAllocated, GivesABlockInTheEncoding)
{
    auto allocated = [](const char *text, Encoding encoding, size_t size) {
        MallocBuffer block(UnicodeGetAllocated(text, encoding), size);
        return block ? std::string(reinterpret_cast<char *>(block.Data()), size) : "null";
    };
    EXPECT_EQ("null", allocated(nullptr, ENCODING_UTF16LE, 0));
    EXPECT_EQ("\u00E4\0"s, allocated("\u00E4", ENCODING_UTF8, 3));
    EXPECT_EQ("\xE4\0\0\0"s, allocated("\u00E4", ENCODING_UTF16LE, 4));
    EXPECT_EQ("a\0"s, allocated("a", ENCODING_US_ASCII, 2));
    EXPECT_EQ("null", allocated("\u00E4", ENCODING_US_ASCII, 0));
}

TEST(UnicodeGetAllocatedDeathTest, PanicsWhenATextCannotBecomeUtf16)
{
    EXPECT_EXIT(static_cast<void>(UnicodeGetAllocated("\xFF", ENCODING_UTF16LE)), testing::ExitedWithCode(1),
                "^Panic: NOT_IMPLEMENTED lib/unicode/unicodeSimpleBase:741\n$");
    EXPECT_EXIT(Utf8Text("\xED\xA0\x80").GetUtf16(), testing::ExitedWithCode(1), "Panic: NOT_IMPLEMENTED");
}

TEST(UnicodeCompare, OrdersByCodePoint)
{
    const struct {
        const char *first, *second;
        int withCase, withoutCase;
    } cases[] = {
        {"", "", 0, 0},
        {"abc", "abc", 0, 0},
        {"ABC", "abc", -1, 0},
        {"abc", "ABC", 1, 0},
        {"ab", "abc", -1, -1},
        {"b", "A", 1, 1},
        {"Z", "a", -1, 1},
        {"\u00C4rger", "\u00E4RGER", -1, 0},
        {"\u03A3", "\u03C2", -1, 0},          // both sigmas fold to one
        {"stra\u00DFe", "strasse", 1, 1},     // simple folding keeps lengths
        {"\U00010400", "\U00010428", -1, -1}, // beyond one unit nothing folds
        {"\U00010000", "\uFFFD", 1, 1},       // though its first unit is the smaller one
        {"\uE000", "\U0001F600", -1, -1},
        {"\U00010000", "\U00010001", -1, -1},
        {"\xFF", "\xFF", -1, -1}, // not text: never equal, never above
        {"b", "a\xFF", -1, -1},
        {"b\xC3", "a", -1, -1},
        {nullptr, "a", -1, -1},
        {"a", nullptr, -1, -1},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.withCase, UnicodeCompare(c.first, c.second, false)) << c.first << " " << c.second;
        EXPECT_EQ(c.withoutCase, UnicodeCompare(c.first, c.second, true)) << c.first << " " << c.second;
    }
}

TEST(CaseFolding, IsSimpleFoldingOfSingleUnits)
{
    const std::pair<char16_t, char16_t> cases[] = {
        {u'A', u'a'},     {u'z', u'z'},     {u'[', u'['},     {0x00C0, 0x00E0}, {0x00D7, 0x00D7},
        {0x0130, 0x0130}, {0x0178, 0x00FF}, {0x017F, u's'},   {0x1E9E, 0x00DF}, {0x212A, u'k'},
        {0xAB70, 0x13A0}, {0xFF21, 0xFF41}, {0xD801, 0xD801}, {0xFFFF, 0xFFFF},
    };
    for (auto [unit, folded] : cases)
        EXPECT_EQ(folded, FoldUnit(unit)) << std::hex << static_cast<int>(unit);
    for (unsigned unit = 0; unit <= 0xFFFF; ++unit) {
        const char16_t folded = FoldUnit(static_cast<char16_t>(unit));
        ASSERT_EQ(folded, FoldUnit(folded)) << std::hex << unit;
    }
    EXPECT_TRUE(EqualsFolded(u"\u00C4A", u"\u00E4a"));
    EXPECT_FALSE(EqualsFolded(u"a", u"ab"));
}

TEST(AsciiCase, ComparesLettersWithoutCase)
{
    EXPECT_EQ(0, AsciiCompareNoCase("Content", "cONTENT"));
    EXPECT_LT(AsciiCompareNoCase("_", "A"), 0); // letters compare as lower case
    EXPECT_LT(AsciiCompareNoCase("ab", "abc"), 0);
    EXPECT_GT(AsciiCompareNoCase("\xC4", "z"), 0); // bytes are unsigned
    EXPECT_NE(0, AsciiCompareNoCase("\xC4", "\xE4"));
    EXPECT_EQ(0, AsciiCompareNoCase("VID_1", "vid_2", 4));
    EXPECT_EQ(0, AsciiCompareNoCase("ab\0x", "AB\0y", 4));
    EXPECT_TRUE(AsciiEqualsNoCase("tRue", "TRUE") && !AsciiEqualsNoCase("true", "tru"));
    EXPECT_TRUE(AsciiLessNoCase{}("A", "b") && AsciiLessNoCase{}("a", "AB") && !AsciiLessNoCase{}("A", "a"));
}

TEST(Utf8Text, KeepsItsUtf16FormAndLength)
{
    Utf8Text text("\U0001F600 caf\u00E9");
    const char16_t *form = text.GetUtf16();
    EXPECT_EQ(u"\U0001F600 caf\u00E9", std::u16string(form));
    EXPECT_EQ(form, text.GetUtf16());
    EXPECT_EQ(7u, text.GetUtf16Length());
    Utf8Text other(text);
    text = Utf8Text("new");
    EXPECT_EQ(3u, text.GetUtf16Length());
    EXPECT_EQ(u"new", std::u16string(text.GetUtf16()));
    EXPECT_EQ(7u, other.GetUtf16Length());
    EXPECT_EQ(0u, Utf8Text(nullptr).GetUtf16Length());
}

} // namespace
} // namespace fodr
