#include "platform/UserFolders.h"

#include "platform/linux/FdStream.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sys/stat.h>

namespace fodr::platform {

std::string RuntimeFolder()
{
    const std::string runtime = GetEnvironment("XDG_RUNTIME_DIR");
    if (!runtime.empty() && runtime.front() == '/')
        return runtime + "/fodr";
    return "/tmp/fodr-" + std::to_string(geteuid());
}

bool CreatePrivateFolder(const std::string &path, std::string *error)
{
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
    struct stat facts {};
    if ((mkdir(path.c_str(), S_IRWXU) != 0 && errno != EEXIST) || lstat(path.c_str(), &facts) != 0) {
        FailWithErrno(error);
        return false;
    }
    // In a folder that everybody may write to, another user could have been first.
    if (!S_ISDIR(facts.st_mode) || facts.st_uid != geteuid()) {
        if (error != nullptr)
            *error = "it belongs to somebody else";
        return false;
    }
    if ((facts.st_mode & 077) != 0 && chmod(path.c_str(), S_IRWXU) != 0) {
        FailWithErrno(error);
        return false;
    }
    return true;
}

std::string TemporaryFolder()
{
    const std::string chosen = GetEnvironment("TMPDIR");
    const std::string folder = chosen.starts_with('/') ? chosen : "/tmp";
    return folder.ends_with('/') ? folder : folder + '/';
}

std::string ServiceLogFolder()
{
    return "/var/log/orvane/";
}

std::string GetEnvironment(const char *name)
{
    const char *value = std::getenv(name);
    return value != nullptr ? value : "";
}

void SetEnvironment(const char *name, const std::string &value)
{
    setenv(name, value.c_str(), 1);
}

std::string SettingsFolder()
{
    const std::string chosen = GetEnvironment("FODR_SETTINGS_DIR");
    if (!chosen.empty())
        return chosen;
    std::string configuration = GetEnvironment("XDG_CONFIG_HOME");
    const std::string home = GetEnvironment("HOME");
    if (configuration.empty() && !home.empty())
        configuration = home + "/.config";
    std::error_code ignored;
    if (!configuration.empty() && std::filesystem::is_directory(configuration + "/fodr", ignored))
        return configuration + "/fodr";
    return "/etc/fodr";
}

bool ErrorOutputIsTerminal()
{
    return isatty(STDERR_FILENO) == 1;
}

bool ProcessExists(uint32_t id)
{
    return kill(static_cast<pid_t>(id), 0) == 0 || errno == EPERM;
}

} // namespace fodr::platform
