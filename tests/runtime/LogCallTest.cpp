#include "runtime/LogCall.h"

#include "runtime/CapturedLog.h"
#include "runtime/FunctionTrace.h"

#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace fodr {
namespace {

using testing::ElementsAre;

struct Speaker {
    void Speak(const std::vector<int> &) const { LOG_WARN("%d apples", 3); }
    template <typename T> T *Traced(T *value)
    {
        FODR_TRACE_FUNCTION();
        LOG_ERROR("inside");
        return value;
    }
};

int CountArgument(int &count)
{
    return ++count;
}

TEST(LogCall, CarriesTheMethodAndPassesByLevel)
{
    CapturedLog log(LOG_LEVEL_WARN);
    int evaluated = 0;
    Speaker().Speak({});
    LOG_INFO("%d", CountArgument(evaluated));
    EXPECT_EQ(0, evaluated);
    int value = 0;
    Speaker().Traced(&value);
    EXPECT_THAT(log.Lines(), ElementsAre("W Speaker::Speak(): 3 apples", "E Speaker::Traced(): inside"));
}

TEST(LogCall, TracesEnterAndExit)
{
    CapturedLog log(LOG_LEVEL_TRACE);
    int value = 0;
    Speaker().Traced(&value);
    EXPECT_THAT(log.Lines(), ElementsAre("T Speaker::Traced(): Enter", "E Speaker::Traced(): inside",
                                         "T Speaker::Traced(): Exit"));
}

TEST(LogCall, NamesMethodsFromTheCompilersText)
{
    const std::pair<detail::MethodName, const char *> cases[] = {
        {detail::MethodName("bool fodr::RPCManager::Init(bool, const Record&)"), "RPCManager::Init()"},
        {detail::MethodName("fodr::Outer::Inner::~Inner()"), "Outer::Inner::~Inner()"},
        {detail::MethodName("static void fodr::Box<T>::Put(T) [with T = int]"), "Box<T>::Put()"},
        {detail::MethodName("std::map<int, long> *fodr::F(int (*)(int))"), "F()"},
        {detail::MethodName("void fodr::{anonymous}::Local(int)"), "Local()"},
        {detail::MethodName("void fodr::(anonymous namespace)::Local(int)"), "Local()"},
    };
    for (const auto &[name, text] : cases)
        EXPECT_STREQ(text, name.text);
}

TEST(LogCall, NamesLevels)
{
    EXPECT_STREQ("ALWAYS", LogLevelName(0));
    EXPECT_STREQ("NEVER", LogLevelName(7));
    EXPECT_STREQ("UNKNOWN", LogLevelName(8));
    EXPECT_STREQ("UNKNOWN", LogLevelName(-1));
    EXPECT_EQ('V', LogLevelLetter(6));
}

TEST(LogCall, DumpsBytes)
{
    CapturedLog log(LOG_LEVEL_TRACE);
    LogWriteHex("F()", LOG_LEVEL_TRACE, "AB\x01", 3);
    ASSERT_EQ(1u, log.Lines().size());
    EXPECT_THAT(log.Lines()[0], testing::MatchesRegex("T F\\(\\): 0x0000: 41 42 01 +AB\\. +\n"));
}

int handled = 0;

TEST(LogCall, DropsACallFromInsideTheLogPath)
{
    handled = 0;
    SetLogHandler([](const char *, int32_t, const char *, va_list) {
        ++handled;
        LogWrite("Inner()", LOG_LEVEL_ALWAYS, "again");
    });
    LogWrite("Outer()", LOG_LEVEL_ALWAYS, "once");
    LogWrite("Outer()", LOG_LEVEL_ALWAYS, "twice");
    SetLogHandler(nullptr);
    LogWrite("Outer()", LOG_LEVEL_ALWAYS, "to nobody");
    EXPECT_EQ(2, handled);
}

// The route to the standard error stream is chosen at load, so each case runs in a process of its own.
class InterimRouteDeathTest : public testing::Test {
protected:
    InterimRouteDeathTest() { testing::FLAGS_gtest_death_test_style = "threadsafe"; }
    ~InterimRouteDeathTest() override { SetVariable("FODR_LOG_STDERR"); }

    static void SetVariable(const char *assignment) { putenv(const_cast<char *>(assignment)); }

    [[noreturn]] static void Speak()
    {
        SetLogHandler(nullptr); // no logger came; the route stays
        LOG_ERROR("error\n");
        LOG_WARN("warn");
        LOG_INFO("%s", "info\n");
        LOG_DEBUG("debug");
        LOG_TRACE("trace");
        std::_Exit(0);
    }
};

#define FODR_LINE(letter, text)                                                                              \
    "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} <[0-9A-F]{4,}> "                       \
    "\\[[0-9A-F]{4,}\\] " letter " InterimRouteDeathTest::Speak\\(\\): " text "\n"

TEST_F(InterimRouteDeathTest, WritesLinesUpToTheLevel)
{
    const std::string error = FODR_LINE("E", "error"), warn = FODR_LINE("W", "warn"),
                      info = FODR_LINE("I", "info"), debug = FODR_LINE("D", "debug");
    const std::pair<const char *, std::string> cases[] = {
        {"FODR_LOG_STDERR=1", error},
        {"FODR_LOG_STDERR=Warn", error + warn},
        {"FODR_LOG_STDERR=yes", error + warn + info},
        {"FODR_LOG_STDERR=DEBUG", error + warn + info + debug},
    };
    for (const auto &[assignment, lines] : cases) {
        SetVariable(assignment);
        EXPECT_EXIT(Speak(), testing::ExitedWithCode(0), "^" + lines + "$") << assignment;
    }
}

TEST_F(InterimRouteDeathTest, CutsALineAt1023Bytes)
{
    SetVariable("FODR_LOG_STDERR=3");
    auto speakAtLength = [] {
        LogWrite("F()", LOG_LEVEL_INFO, "%s", std::string(2000, 'x').c_str());
        std::_Exit(0);
    };
    EXPECT_EXIT(speakAtLength(), testing::ExitedWithCode(0), testing::Truly([](const std::string &text) {
                    return text.size() == 1024 && text.ends_with("xx\n");
                }));
}

TEST_F(InterimRouteDeathTest, IsSilentWhenNotAskedFor)
{
    EXPECT_EXIT(Speak(), testing::ExitedWithCode(0), "^$");
}

} // namespace
} // namespace fodr
