#include "runtime/LogCall.h"

#include "platform/SystemError.h"
#include "runtime/CapturedLog.h"
#include "runtime/FunctionTrace.h"
#include "runtime/StringUtils.h"

#include <cstdio>
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

// ---- The receiver ----

std::string received;

const LogReceiver kReceiver = {
    [](const char *functionName, int32_t, const char *format, va_list arguments) {
        received +=
            std::string("text ") + functionName + " " + StringUtils::FormatV(format, arguments) + "\n";
        LOG_ALWAYS("from inside"); // dropped
    },
    [](const char *functionName, int32_t, const void *, size_t length) {
        received += std::string("hex ") + functionName + " " + std::to_string(length) + "\n";
    },
    [](uint32_t errorCode, const char *functionName, int32_t, const char *format, va_list arguments) {
        received += std::string("error ") + functionName + " " + StringUtils::FormatV(format, arguments) +
                    " " + std::to_string(errorCode) + "\n";
    },
};

void SpeakOfErrors()
{
    LOG_CODE_AT(LOG_LEVEL_ALWAYS, platform::kErrorBusy, "%s\n", "code");
    EXPECT_EQ(std::fopen("no such file", "r"), nullptr);
    LogWriteLastError("F()", LOG_LEVEL_ERROR, "%s", "last");
}

TEST(LogCall, HandsEachKindOfCallToTheReceiver)
{
    SetLogReceiver(&kReceiver);
    LogWrite("F()", LOG_LEVEL_INFO, "%d", 1);
    LogWriteHex("F()", LOG_LEVEL_INFO, "AB", 2);
    SpeakOfErrors();
    {
        CapturedLog log(LOG_LEVEL_ERROR); // has everything, as text, while it lives
        SpeakOfErrors();
        EXPECT_THAT(
            log.Lines(),
            ElementsAre("A SpeakOfErrors(): code; (170) " + platform::SystemErrorText(platform::kErrorBusy),
                        "E F(): last; (2) " + platform::SystemErrorText(platform::kErrorFileNotFound)));
    }
    SetLogReceiver(nullptr);
    SpeakOfErrors();
    EXPECT_EQ("text F() 1\nhex F() 2\nerror SpeakOfErrors() code\n 170\nerror F() last 2\n", received);
}

} // namespace
} // namespace fodr
