#include "runtime/SystemFacts.h"

#include "lib/misc/FileTime.h"
#include "platform/Files.h"
#include "platform/Process.h"
#include "platform/Threads.h"
#include "runtime/LogCall.h"
#include "runtime/OVRegKey.h"
#include "runtime/StringUtils.h"

namespace fodr {

namespace {

constexpr const char *kOsVersionKey = "HKLM\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\";

constexpr const char *kMonths[] = {"---", "Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// What the settings store doesn't have, the system may tell in another way.
std::string OsValue(const std::string &name)
{
    const std::string value = ReadRegistryString(kOsVersionKey + name);
    return value.empty() ? platform::OsVersionValue(name) : value;
}

} // namespace

uint32_t ProcessUtils::GetSessionID(bool useThreadToken, uint32_t knownId)
{
    uint32_t id = knownId;
    if (id != platform::kNoSession)
        return id;
    if (useThreadToken && !platform::ThreadSessionId(id))
        LOG_ERROR("GetTokenInformation(0x%016llX) failed", 0ULL); // the platform keeps the token to itself
    if (id == platform::kNoSession && !platform::CurrentSessionId(id))
        LOG_ERROR("ProcessIdToSessionId(%d) failed", static_cast<int>(platform::CurrentProcessId()));
    return id;
}

std::string GetModulePath(bool thisModule)
{
    return platform::ModulePath(thisModule ? reinterpret_cast<const void *>(&OsValue) : nullptr);
}

std::string GetFileTimeText(const std::string &path)
{
    uint64_t time = 0;
    if (path.empty() || !platform::LastWriteTimeOfFile(path, time))
        return {};
    const int64_t seconds = static_cast<int64_t>(time / kFileTimePerSecond) - kFileTimeEpochSeconds;
    const std::tm local =
        platform::BreakDownTime(seconds - int64_t{platform::CurrentLocalZone().biasMinutes} * 60, true);
    return StringUtils::Format("%s %2d %d %02d:%02d:%02d", kMonths[local.tm_mon + 1], local.tm_mday,
                               local.tm_year + 1900, local.tm_hour, local.tm_min, local.tm_sec);
}

std::string GetFileVersionText(const std::string &path)
{
    std::string version;
    if (path.empty() || !platform::FileProductVersion(path, version))
        return {};
    if (version.empty())
        version = "unknown";
    return StringUtils::Format("%s (%s)", version.c_str(), GetFileTimeText(path).c_str());
}

std::string MakeOsVersionText()
{
    const auto first = [](const std::string &a, const std::string &b) { return a.empty() ? b : a; };
    std::string text = first(OsValue("ProductName"), "Windows unknown");
    const std::string servicePack = OsValue("CSDVersion");
    if (!servicePack.empty())
        text += ", " + servicePack;
    if (platform::HasRemoteDesktopServices())
        text += ", RDS installed";
    const std::string major = OsValue("CurrentMajorVersionNumber");
    const std::string minor = OsValue("CurrentMinorVersionNumber");
    text += ", Version ";
    text += major.empty() || minor.empty() ? OsValue("CurrentVersion") : major + "." + minor;
    const std::string release = OsValue("ReleaseId");
    if (!release.empty())
        text += "." + release;
    const std::string build = first(OsValue("CurrentBuildNumber"), OsValue("CurrentBuild"));
    if (!build.empty())
        text += ", Build " + build;
    return text + ", 64-bit";
}

std::string GetOsVersionText()
{
    static const std::string text = MakeOsVersionText();
    return text;
}

} // namespace fodr
