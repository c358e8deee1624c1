#include "platform/UserFolders.h"

#include "platform/linux/FdStream.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sys/stat.h>

namespace fodr::platform {

namespace {

constexpr char kMachineSettings[] = "/etc/fodr";

// Of this user, whether it is there or not; empty for one without a home.
std::string OwnSettingsFolder()
{
    const std::string configuration = GetEnvironment("XDG_CONFIG_HOME");
    if (!configuration.empty())
        return configuration + "/fodr";
    const std::string home = GetEnvironment("HOME");
    return home.empty() ? "" : home + "/.config/fodr";
}

} // namespace

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

bool TemporaryFolderIsPerSession()
{
    return false;
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
    const std::string own = OwnSettingsFolder();
    std::error_code ignored;
    return !own.empty() && std::filesystem::is_directory(own, ignored) ? own : kMachineSettings;
}

std::string MakeSettingsFolder()
{
    const std::string own = OwnSettingsFolder();
    if (own.empty() || SettingsFolder() != kMachineSettings || geteuid() == 0 ||
        access(kMachineSettings, W_OK) == 0)
        return {};
    // Whole or not at all: without a limit that the machine sets, more could be shared than before.
    namespace fs = std::filesystem;
    std::error_code error, ignored;
    std::string filling = own + ".XXXXXX";
    fs::create_directories(fs::path(own).parent_path(), ignored);
    if (!mkdtemp(filling.data()))
        return {};
    fs::directory_iterator file(kMachineSettings, error);
    if (error == std::errc::no_such_file_or_directory)
        error.clear();
    for (; !error && file != fs::directory_iterator(); file.increment(error)) {
        if (file->path().extension() == ".ini" &&
            !fs::copy_file(file->path(), filling / file->path().filename(), error))
            break;
    }
    if (!error)
        fs::rename(filling, own, error);
    if (error)
        fs::remove_all(filling, ignored);
    return error ? "" : own;
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
