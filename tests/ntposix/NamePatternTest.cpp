#include "ntposix/NamePattern.h"

#include <gtest/gtest.h>
#include <string>
#include <string_view>

namespace fodr::ntposix {
namespace {

struct Case {
    std::u16string_view pattern;
    std::u16string_view name;
    bool matches;
};

std::string Ascii(std::u16string_view text)
{
    std::string out;
    for (const char16_t unit : text)
        out.push_back(unit < 0x80 ? static_cast<char>(unit) : '#');
    return out;
}

void Check(std::initializer_list<Case> cases)
{
    for (const Case &c : cases) {
        const auto pattern = NamePattern::Compile(c.pattern);
        ASSERT_TRUE(pattern);
        EXPECT_EQ(pattern->Matches(c.name), c.matches) << Ascii(c.pattern) << " on " << Ascii(c.name);
    }
}

TEST(NamePattern, PlainNamesAndStarsCompareWithoutCase)
{
    Check({
        {u"", u"anything", true},
        {u"*", u"anything", true},
        {u"**", u".", true},
        {u"Readme.TXT", u"rEADME.txt", true},
        {u"readme", u"readme.txt", false},
        {u"\u00C9t\u00E9", u"\u00E9T\u00C9", true},
        {u"*.txt", u"A.TXT", true},
        {u"*.txt", u".txt", true},
        {u"*.txt", u"txt", false},
        {u"*.txt", u"a.txt.bak", false},
        {u"a*", u"A", true},
        {u"a*", u"ba", false},
        {u"a*b*c", u"aXbYbZc", true},
        {u"a*b*c", u"acb", false},
        {u"*aab", u"aaab", true},
        {u"*aab*", u"aaaba", true},
    });
}

TEST(NamePattern, StarDotStarAsksForADotAtThisLevel)
{
    Check(
        {{u"*.*", u"a.b", true}, {u"*.*", u"makefile", false}, {u"*.*", u"..", true}, {u"*.*", u".x", true}});
}

TEST(NamePattern, QuestionMarkIsExactlyOneUnit)
{
    Check({
        {u"?", u"a", true},
        {u"?", u"", false},
        {u"?", u"ab", false},
        {u"a?c", u"a.c", true},
        {u"ab?", u"ab", false},
        {u"*?", u"", false},
        {u"??*", u"a", false},
        {u"??*", u"ab", true},
    });
}

TEST(NamePattern, DosStarStopsBeforeTheFinalDot)
{
    Check({
        {u"<", u"name", true},
        {u"<", u"a.b", false},
        {u"<.b", u"a.a.b", true},
        {u"<.", u"a", false},
        {u"<.", u"a.", true},
        {u"<.<", u"a.b.c", true},
        {u"<.<", u"abc", false},
        {u"<b", u"a.b", false},
        {u"a<", u"a.", false},
        // The star must try the later "a", since what follows can't cross the last dot.
        {u"*a<", u"a.a", true},
    });
}

TEST(NamePattern, DosQuestionMarkIsOneUnitOrNothingBeforeADotOrTheEnd)
{
    Check({
        {u">>>", u"a", true},
        {u">>>", u"abc", true},
        {u">>>", u"abcd", false},
        {u">>>.txt", u"a.txt", true},
        {u">>>.>>>", u"a.b", true},
        {u">>>.>>>", u"ab", false},
        {u"a>b", u"ab", false},
        {u"a>.b", u"a.b", true},
        {u">", u".", false},
    });
}

TEST(NamePattern, DosDotIsADotOrTheEnd)
{
    Check({
        {u"a\"", u"a", true},
        {u"a\"", u"a.", true},
        {u"a\"b", u"a.b", true},
        {u"a\"b", u"ab", false},
        {u"*\"*", u"makefile", true},
        {u"<\"txt", u"a.txt", true},
        {u">>>>>>>>\">>>", u"readme", true},
        {u">>>>>>>>\">>>", u"readme.c", true},
        {u">>>>>>>>\">>>", u"readme.html", false},
        {u"a\"\"", u"a", true},
    });
}

TEST(NamePattern, OnlyAPlainNameIsExact)
{
    EXPECT_TRUE(NamePattern::Compile(u"a.b")->IsExact());
    EXPECT_EQ(NamePattern::Compile(u"A.b")->ExactName(), u"A.b");
    for (const auto *pattern : {u"", u"*", u"*.b", u"a?", u"a<", u"a>", u"a\""})
        EXPECT_FALSE(NamePattern::Compile(pattern)->IsExact()) << Ascii(pattern);
}

// A matcher that tries every place of every star would not come back from this.
TEST(NamePattern, ManyStarsDontMultiply)
{
    std::u16string expression;
    for (int i = 0; i < 120; ++i)
        expression += u"*a<a";
    const std::u16string name = std::u16string(254, u'a');
    EXPECT_FALSE(NamePattern::Compile(expression + u"b")->Matches(name));
    EXPECT_TRUE(NamePattern::Compile(expression)->Matches(name));
    EXPECT_FALSE(NamePattern::Compile(std::u16string(5000, u'a')));
}

} // namespace
} // namespace fodr::ntposix
