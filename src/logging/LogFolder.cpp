#include "logging/LogFolder.h"

#include "platform/Files.h"
#include "platform/Process.h"
#include "platform/SystemError.h"
#include "platform/Volumes.h"
#include "runtime/StringUtils.h"

#include <algorithm>

namespace fodr {

namespace {

bool ServiceFolder(std::string &folder)
{
    std::string found = platform::ServiceLogFolder();
    if (found.empty() || !platform::PathExists(found))
        return false;
    folder = found;
    return true;
}

// "C:\Temp\2\" is the temporary folder of the second session of its user; logs of all sessions stay together.
void CutSessionFolder(std::string &folder)
{
    if (folder.empty() || !platform::IsLocalSeparator(folder.back()))
        return;
    auto digits = std::find_if(folder.rbegin() + 1, folder.rend(), [](char c) { return c < '0' || c > '9'; });
    if (digits != folder.rbegin() + 1 && digits != folder.rend() && platform::IsLocalSeparator(*digits))
        folder.erase(digits.base(), folder.end());
}

bool UserFolder(std::string &folder)
{
    constexpr size_t kLongestPath = 1024;
    constexpr size_t kLongestName = 256;
    std::string found = platform::TemporaryFolder();
    if (found.empty() || found.size() > kLongestPath)
        return false;
    if (StringUtils::EndsWith(found.c_str(), "Windows\\Temp\\", false))
        return ServiceFolder(folder);
    if (platform::TemporaryFolderIsPerSession())
        CutSessionFolder(found);
    std::string user = platform::EnvironmentUserName();
    if (user.empty() || user.size() >= kLongestName)
        user = "default";
    found += "orvane-" + user + platform::LocalSeparator();
    uint32_t error = platform::CreateFolder(found);
    if (error != 0 && error != platform::kErrorAlreadyExists)
        return false;
    folder = found;
    return true;
}

} // namespace

bool DefaultLogFolder(std::string &folder)
{
    return platform::RunsAsService() ? ServiceFolder(folder) : UserFolder(folder);
}

} // namespace fodr
