#include "host/RunningHosts.h"

#include "platform/Files.h"
#include "platform/Process.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <vector>

namespace fodr::host {
namespace {

namespace fs = std::filesystem;

struct HostEntry {
    uint32_t processId;
    fs::path folder;
    fs::file_time_type started;
};

fs::path HostsFolder()
{
    return fs::path(platform::RuntimeFolder()) / ".hosts";
}

// Latest first.
std::vector<HostEntry> ListHosts()
{
    std::vector<HostEntry> hosts;
    std::error_code error;
    for (fs::directory_iterator entry(HostsFolder(), error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        HostEntry host{0, entry->path(), {}};
        const auto [last, fault] = std::from_chars(name.data(), name.data() + name.size(), host.processId);
        if (fault != std::errc() || last != name.data() + name.size())
            continue;
        std::error_code ignored;
        host.started = fs::last_write_time(ControlSocketOf(host.folder.string()), ignored);
        hosts.push_back(host);
    }
    std::sort(hosts.begin(), hosts.end(),
              [](const HostEntry &a, const HostEntry &b) { return a.started > b.started; });
    return hosts;
}

} // namespace

std::string ControlSocketOf(const std::string &hostFolder)
{
    return (fs::path(hostFolder) / "control").string();
}

std::string MakeHostFolder(std::string *error)
{
    if (!platform::CreatePrivateFolder(platform::RuntimeFolder(), error) ||
        !platform::CreatePrivateFolder(HostsFolder().string(), error))
        return {};
    const uint32_t self = platform::CurrentProcessId();
    for (const HostEntry &host : ListHosts()) {
        if (host.processId == self || !platform::ProcessExists(host.processId))
            RemoveHostFolder(host.folder.string());
    }
    const std::string folder = (HostsFolder() / std::to_string(self)).string();
    return platform::CreatePrivateFolder(folder, error) ? folder : "";
}

void RemoveHostFolder(const std::string &folder)
{
    std::error_code ignored;
    fs::remove_all(folder, ignored);
}

std::unique_ptr<platform::ByteStream> ConnectToHost(uint32_t processId)
{
    for (const HostEntry &host : ListHosts()) {
        if (processId != 0 && host.processId != processId)
            continue;
        if (auto stream = platform::ConnectLocal(ControlSocketOf(host.folder.string()), nullptr))
            return stream;
    }
    return nullptr;
}

} // namespace fodr::host
