#include "logging/ProxyWriter.h"

#include "runtime/LogCall.h"
#include "runtime/StringUtils.h"

#include <algorithm>
#include <string>
#include <string_view>

namespace fodr {

namespace {

constexpr std::string_view kPrefix = "@PROXY/";

} // namespace

bool ProxyWriter::OpenSink()
{
    return true;
}

bool ProxyWriter::WriteMessage(const LogMessage &message)
{
    if (!logFunction)
        return false;
    std::string_view text = message.TextToWrite(); // ends with a zero, as does every end of it
    if (!text.starts_with(kPrefix)) {
        text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
        logFunction("", LOG_LEVEL_ALWAYS, "%s", text.data());
        return true;
    }
    text.remove_prefix(kPrefix.size());
    if (text.empty())
        return false;
    int32_t level = text.front() - '0';
    text.remove_prefix(1);
    size_t end = text.find('/'); // a name that holds one is cut there
    if (end == std::string_view::npos)
        return false;
    std::string functionName(text.substr(0, end));
    logFunction(functionName.c_str(), level, "%s", text.substr(end + 1).data());
    return true;
}

bool ProxyWriter::CloseSink()
{
    logFunction = nullptr;
    return true;
}

int ProxyWriter::FormatPrefix(char *buffer, size_t size, const char *functionName, int32_t level)
{
    return StringUtils::FormatBuffer(buffer, size, "%s%c%s%c", kPrefix.data(), '0' + level,
                                     functionName ? functionName : "", '/');
}

} // namespace fodr
