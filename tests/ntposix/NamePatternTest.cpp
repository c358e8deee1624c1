#include "ntposix/NamePattern.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace fodr::ntposix {
namespace {

TEST(NamePattern, ComparesWithoutCaseAndKnowsTheFormsOfDos)
{
    const struct {
        std::u16string pattern;
        std::vector<std::u16string> matches, others;
    } cases[] = {
        {u"", {u"anything"}, {}},
        {u"**", {u"anything", u"."}, {}},
        {u"Readme.TXT", {u"rEADME.txt"}, {u"readme", u"readme.txt2"}},
        {u"\u00C9t\u00E9", {u"\u00E9T\u00C9"}, {u"ete"}},
        {u"*.txt", {u"A.TXT", u".txt"}, {u"txt", u"a.txt.bak"}},
        {u"*.*", {u"a.b", u"..", u".x"}, {u"makefile"}}, // the dot is asked for: NT isn't DOS here
        {u"a*b*c", {u"aXbYbZC", u"abc"}, {u"acb", u"xabc"}},
        {u"*aab*", {u"aaaba"}, {u"abab"}},
        {u"a?c", {u"a.c"}, {u"ac", u"abbc"}},
        {u"??*", {u"ab", u"abc"}, {u"a", u""}},
        // '<' is a star that stops before the last dot.
        {u"<", {u"name"}, {u"a.b"}},
        {u"<.b", {u"a.a.b", u".b"}, {u"a.b.c"}},
        {u"<.", {u"a."}, {u"a"}},
        {u"<.<", {u"a.b.c"}, {u"abc"}},
        {u"*a<", {u"a.a"}, {u"a.b"}}, // the star must try the later "a", too
        // '>' is one unit, or nothing before a dot and at the end.
        {u">>>", {u"a", u"abc"}, {u"abcd", u"."}},
        {u">>>.>>>", {u"a.b", u"abc."}, {u"ab", u"abcd.e"}},
        {u"a>b", {u"axb"}, {u"ab"}},
        // '"' is a dot or the end.
        {u"a\"", {u"a", u"a."}, {u"ab"}},
        {u"a\"b", {u"a.b"}, {u"ab"}},
        {u"*\"*", {u"makefile", u"a.b"}, {}},
        {u">>>>>>>>\">>>", {u"readme", u"readme.c"}, {u"readme.html", u"readmereadme"}},
    };
    for (const auto &[text, matches, others] : cases) {
        SCOPED_TRACE(testing::PrintToString(text));
        const auto pattern = NamePattern::Compile(text);
        ASSERT_TRUE(pattern);
        for (const std::u16string &name : matches)
            EXPECT_TRUE(pattern->Matches(name)) << testing::PrintToString(name);
        for (const std::u16string &name : others)
            EXPECT_FALSE(pattern->Matches(name)) << testing::PrintToString(name);
    }
}

// A matcher that tries every place of every star would not come back from this.
TEST(NamePattern, ManyStarsDontMultiply)
{
    std::u16string expression;
    for (int i = 0; i < 120; ++i)
        expression += u"*a<a";
    const std::u16string name(254, u'a');
    EXPECT_FALSE(NamePattern::Compile(expression + u"b")->Matches(name));
    EXPECT_TRUE(NamePattern::Compile(expression)->Matches(name));
    EXPECT_FALSE(NamePattern::Compile(std::u16string(5000, u'a')));
}

} // namespace
} // namespace fodr::ntposix
