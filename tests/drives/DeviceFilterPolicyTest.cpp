#include "drives/FodrDeviceFilterPolicy.h"
#include "runtime/CapturedLog.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace fodr {
namespace {

constexpr int32_t kExclude = FodrDeviceFilterPolicy::kExclude;
constexpr int32_t kInclude = FodrDeviceFilterPolicy::kInclude;
using Lines = std::vector<std::string>;

TEST(DeviceFilterPolicy, KeepsTheWellFormedRules)
{
    const struct {
        std::string text;
        Lines rules;
    } rows[] = {
        {"", {}},
        {";;vid-0781_pid-5567;vid-abcd_pid-****;", {"07815567", "abcd****"}},
        {"VID-0781_PID-5567;vid-0781_pid-55678;vid-0781_pid-556;vid-078g_pid-5567", {}},
        {" vid-0781_pid-5567;vid-0781_pid-5567\n;vid-0781", {}},
        {"bad;vid-*A*f_pid-1*3*;" + std::string(100000, 'v'), {"*A*f1*3*"}},
    };
    FodrDeviceFilterPolicy policy;
    for (const auto &row : rows) {
        Lines rules{"left over"};
        policy.ParseVidPidPolicy(row.text, rules);
        EXPECT_EQ(rules, row.rules) << row.text.substr(0, 80);
        policy.ParsePolicy("vid-ffff_pid-ffff", kExclude);
        policy.ParsePolicy(row.text, kExclude);
        EXPECT_EQ(policy.GetPolicyList(kExclude), !row.rules.empty());
        EXPECT_FALSE(policy.GetPolicyList(kInclude));
    }
}

TEST(DeviceFilterPolicy, AllowsWhatIsUncertainAndDeniesWhatIsListed)
{
    const std::string two = "vid-0781_pid-5567;vid-abcd_pid-****";
    const struct {
        std::string rules;
        std::string deviceInfo;
        bool byExclude;
        bool byInclude;
    } rows[] = {
        {two, "<vidpid>07815567", false, true},
        {two, "<vidpid>ABCD0000", false, true},
        {two, "<other>x<vidpid>aBcD1234<more>y", false, true},
        {two, "<vidpid>07815568", true, false},
        {two, "<vidpid>0781556", true, false},
        {two, "<vidpid>078155670", true, false},
        {two, "", true, true},
        {two, "<vidpid>", true, true},
        {two, "<vidpid><vidpid>07815567", true, true},
        {two, "07815567", true, true},
        {"vid-****_pid-****", "<vidpid>00000000", false, true},
        {"vid-****_pid-****", "", true, true},
        {"not a rule", "<vidpid>07815567", true, true},
    };
    for (const auto &row : rows) {
        FodrDeviceFilterPolicy policy;
        policy.ParsePolicy(row.rules, kExclude);
        policy.ParsePolicy(row.rules, kInclude);
        EXPECT_EQ(policy.AllowToShareByPolicy(row.deviceInfo, kExclude), row.byExclude) << row.deviceInfo;
        EXPECT_EQ(policy.AllowToShareByPolicy(row.deviceInfo, kInclude), row.byInclude) << row.deviceInfo;
    }
}

TEST(DeviceFilterPolicy, TooManyRulesNeverLetADeviceThroughThatFewerKeepOut)
{
    const std::string device = "<vidpid>07815567<";
    std::string rules;
    for (size_t n = 0; n < FodrDeviceFilterPolicy::kMostRules; ++n)
        rules += "vid-0000_pid-0000;";
    for (const bool above : {false, true}) {
        FodrDeviceFilterPolicy policy;
        const std::string list = rules + (above ? "vid-0781_pid-5567" : "");
        policy.ParsePolicy(list, FodrDeviceFilterPolicy::kExclude);
        policy.ParsePolicy(list, FodrDeviceFilterPolicy::kInclude);
        EXPECT_EQ(policy.AllowToShareByPolicy(device, FodrDeviceFilterPolicy::kExclude), !above);
        EXPECT_FALSE(policy.AllowToShareByPolicy(device, FodrDeviceFilterPolicy::kInclude));
    }
}

TEST(DeviceFilterPolicy, SaysWhatItDoes)
{
    FodrDeviceFilterPolicy policy;
    CapturedLog log(LOG_LEVEL_TRACE);
    policy.ParsePolicy("vid-0781_pid-5567;x", kExclude);
    policy.ParsePolicy("vid-0781_pid-5567", 2);
    EXPECT_FALSE(policy.GetPolicyList(-1));
    EXPECT_TRUE(policy.AllowToShareByPolicy("<vidpid>07815567", 7));
    policy.AllowToShareByPolicy("", kExclude);
    policy.AllowToShareByPolicy("<vidpid>07815567", kExclude);
    policy.AllowToShareByPolicy("<vidpid>07815568", kExclude);
    Lines lines = CapturedLog::Lines();
    for (std::string &line : lines)
        line.erase(2, std::string("FodrDeviceFilterPolicy::").size());
    const std::string allow = "T AllowToShareByPolicy(): ";
    const std::string decision = " by device filter policy (type = 0).";
    EXPECT_EQ(lines, (Lines{"T ParseVidPidPolicy(): Formatted vidpid string is 07815567.\n",
                            "D ParseVidPidPolicy(): Invalid vid/pid filter policy format x.\n",
                            "T ParsePolicy(): The type 2 is not supported!.",
                            "T ParsePolicy(): Failed to get filter policy list for type 2.\n",
                            "T GetPolicyList(): The type -1 is not supported!.",
                            allow + "The type 7 is not supported!.", allow + "Policy 7 is not defined.",
                            allow + "Failed to get device property.",
                            allow + "Folder(deviceinfo = <vidpid>07815567) is denied" + decision,
                            allow + "Folder(deviceinfo = <vidpid>07815568) is allowed" + decision}));
}

} // namespace
} // namespace fodr
