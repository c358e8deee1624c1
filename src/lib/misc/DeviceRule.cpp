#include "lib/misc/DeviceRule.h"

#include <algorithm>
#include <cctype>

namespace fodr {

namespace {

constexpr std::string_view kVendor = "vid-";
constexpr std::string_view kProduct = "_pid-";
constexpr size_t kIdLength = 4;

// Takes `mark` and four digits or "*" from the front of the text; false when they aren't there.
bool TakeId(std::string_view &text, std::string_view mark, std::string &ids)
{
    if (!text.starts_with(mark) || text.size() < mark.size() + kIdLength)
        return false;
    const std::string_view id = text.substr(mark.size(), kIdLength);
    text.remove_prefix(mark.size() + kIdLength);
    ids += id;
    return std::all_of(id.begin(), id.end(),
                       [](char c) { return c == '*' || std::isxdigit(static_cast<unsigned char>(c)); });
}

} // namespace

bool ParseDeviceRule(std::string_view rule, std::string &ids)
{
    ids.clear();
    return TakeId(rule, kVendor, ids) && TakeId(rule, kProduct, ids) && rule.empty();
}

} // namespace fodr
