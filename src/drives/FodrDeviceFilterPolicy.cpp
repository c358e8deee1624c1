#include "drives/FodrDeviceFilterPolicy.h"

#include "lib/unicode/ForeignText.h"
#include "runtime/LogCall.h"

#include <algorithm>
#include <cctype>
#include <string_view>

namespace fodr {

namespace {

constexpr std::string_view kProperty = "<vidpid>";
constexpr char kEveryDevice[] = "********";

// "*" in a rule stands for one character of any kind.
bool Matches(const std::string &rule, const std::string &property)
{
    return std::equal(rule.begin(), rule.end(), property.begin(), property.end(), [](char a, char b) {
        return a == '*' ||
               std::toupper(static_cast<unsigned char>(a)) == std::toupper(static_cast<unsigned char>(b));
    });
}

} // namespace

const std::vector<std::string> *FodrDeviceFilterPolicy::ListOf(int32_t type) const
{
    if (type == kExclude)
        return &excludeList;
    return type == kInclude ? &includeList : nullptr;
}

void FodrDeviceFilterPolicy::ParsePolicy(const std::string &text, int32_t type)
{
    if (type != kExclude && type != kInclude) {
        LOG_TRACE("The type %d is not supported!.", type);
        LOG_TRACE("Failed to get filter policy list for type %d.\n", type);
        return;
    }
    ParseVidPidPolicy(text, type == kExclude ? excludeList : includeList);
}

void FodrDeviceFilterPolicy::ParseVidPidPolicy(const std::string &text, std::vector<std::string> &list)
{
    list.clear();
    if (text.empty())
        return;
    for (size_t begin = 0; begin <= text.size();) {
        const size_t end = std::min(text.find(kDeviceRuleSeparator, begin), text.size());
        const std::string rule = text.substr(begin, end - begin);
        begin = end + 1;
        std::string ids;
        if (!ParseDeviceRule(rule, ids)) {
            LOG_DEBUG("Invalid vid/pid filter policy format %s.\n", rule.c_str());
            continue;
        }
        if (list.size() >= kMostRules) {
            LOG_ERROR("Too many vid/pid filter rules.\n");
            if (&list == &excludeList)
                list.assign(1, kEveryDevice);
            return;
        }
        LOG_TRACE("Formatted vidpid string is %s.\n", ids.c_str());
        list.push_back(ids);
    }
}

bool FodrDeviceFilterPolicy::GetPolicyList(int32_t type) const
{
    const std::vector<std::string> *list = ListOf(type);
    if (!list)
        LOG_TRACE("The type %d is not supported!.", type);
    return list && !list->empty();
}

std::string FodrDeviceFilterPolicy::GetDeviceProperty(const std::string &deviceInfo, int32_t type) const
{
    const size_t mark = deviceInfo.find(kProperty);
    if (!ListOf(type) || mark == std::string::npos)
        return {};
    const size_t begin = mark + kProperty.size();
    return deviceInfo.substr(begin, deviceInfo.find('<', begin) - begin);
}

bool FodrDeviceFilterPolicy::AllowToShareByPolicy(const std::string &deviceInfo, int32_t type) const
{
    const std::vector<std::string> *list = ListOf(type);
    if (!list)
        LOG_TRACE("The type %d is not supported!.", type);
    if (!list || list->empty()) {
        LOG_TRACE("Policy %d is not defined.", type);
        return true;
    }
    const std::string property = GetDeviceProperty(deviceInfo, type);
    if (property.empty()) {
        LOG_TRACE("Failed to get device property.");
        return true;
    }
    const bool isListed = std::any_of(
        list->begin(), list->end(), [&property](const std::string &rule) { return Matches(rule, property); });
    const bool isAllowed = isListed == (type == kInclude);
    LOG_TRACE("Folder(deviceinfo = %s) is %s by device filter policy (type = %d).", deviceInfo.c_str(),
              isAllowed ? "allowed" : "denied", type);
    return isAllowed;
}

} // namespace fodr
