#include "runtime/LogCall.h"

#include "platform/SystemError.h"
#include "runtime/CapturedLog.h"
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
    template <typename T> T *Speak(T *value, const std::vector<int> &) const
    {
        FODR_TRACE_FUNCTION();
        LOG_WARN("%d apples", 3);
        LOG_INFO("%d", ++*value);
        return value;
    }
};

TEST(LogCall, CarriesTheMethodAndPassesByLevel)
{
    int evaluated = 0;
    {
        CapturedLog log(LOG_LEVEL_WARN);
        Speaker().Speak(&evaluated, {});
        EXPECT_THAT(log.Lines(), ElementsAre("W Speaker::Speak(): 3 apples"));
        EXPECT_EQ(0, evaluated);
    }
    CapturedLog log(LOG_LEVEL_TRACE);
    Speaker().Speak(&evaluated, {});
    EXPECT_THAT(log.Lines(), ElementsAre("T Speaker::Speak(): Enter", "W Speaker::Speak(): 3 apples",
                                         "I Speaker::Speak(): 1", "T Speaker::Speak(): Exit"));
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
    const std::pair<int32_t, std::string> levels[] = {
        {0, "A ALWAYS"}, {6, "V VERBOSE"}, {7, "N NEVER"}, {8, "? UNKNOWN"}, {-1, "? UNKNOWN"}};
    for (const auto &[level, text] : levels)
        EXPECT_EQ(text, std::string(1, LogLevelLetter(level)) + " " + LogLevelName(level));
}

std::string received;

const LogReceiver kReceiver = {
    [](const char *functionName, int32_t, const char *format, va_list arguments) {
        received +=
            std::string("text ") + functionName + " " + StringUtils::FormatV(format, arguments) + "\n";
        LOG_ALWAYS("from inside"); // dropped
    },
    [](const char *functionName, int32_t, const void *, size_t length) {
        received += std::string("hex ") + functionName + " " + std::to_string(length) + "\n";
        LOG_ALWAYS("from inside");
    },
    [](uint32_t errorCode, const char *functionName, int32_t, const char *format, va_list arguments) {
        received += std::string("error ") + functionName + " " + StringUtils::FormatV(format, arguments) +
                    " " + std::to_string(errorCode) + "\n";
        LOG_ALWAYS("from inside");
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
    received.clear();
    SetLogReceiver(&kReceiver);
    LogWrite("F()", LOG_LEVEL_INFO, "%d", 1);
    LogWriteHex("F()", LOG_LEVEL_INFO, "AB", 2);
    SpeakOfErrors();
    {
        CapturedLog log(LOG_LEVEL_ERROR); // has everything, as text, while it lives
        SpeakOfErrors();
        LogWriteHex("F()", LOG_LEVEL_ERROR, "AB\x01", 3);
        EXPECT_THAT(
            log.Lines(),
            ElementsAre("A SpeakOfErrors(): code; (170) " + platform::SystemErrorText(platform::kErrorBusy),
                        "E F(): last; (2) " + platform::SystemErrorText(platform::kErrorFileNotFound),
                        testing::MatchesRegex("E F\\(\\): 0x0000: 41 42 01 +AB\\. +\n")));
    }
    SetLogReceiver(nullptr);
    SpeakOfErrors(); // to nobody
    EXPECT_EQ("text F() 1\nhex F() 2\nerror SpeakOfErrors() code\n 170\nerror F() last 2\n", received);
}

} // namespace
} // namespace fodr
