#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/Files.h"

#include "lib/misc/FileTime.h"
#include "lib/unicode/CaseFolding.h"
#include "platform/SystemError.h"
#include "platform/linux/FdStream.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string_view>
#include <sys/stat.h>

namespace fodr::platform {

namespace {

uint64_t FileTimeOf(const timespec &time)
{
    return static_cast<uint64_t>(fodr::FileTimeOf(time.tv_sec, time.tv_nsec));
}

// Goes back to the last '*' only, which is enough and never takes longer than the product of the lengths.
bool MatchesPattern(std::string_view name, std::string_view pattern)
{
    size_t n = 0;
    size_t p = 0;
    size_t star = std::string_view::npos;
    size_t afterStar = 0;
    while (n < name.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            afterStar = n;
        } else if (p < pattern.size() &&
                   (pattern[p] == '?' || AsciiEqualsNoCase(pattern.substr(p, 1), name.substr(n, 1)))) {
            ++p;
            ++n;
        } else if (star != std::string_view::npos) {
            p = star + 1;
            n = ++afterStar;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', p) == std::string_view::npos;
}

} // namespace

uint64_t CurrentFileTime()
{
    timespec now{};
    return clock_gettime(CLOCK_REALTIME, &now) == 0 ? FileTimeOf(now) : 0;
}

bool PathExists(const std::string &path)
{
    return access(path.c_str(), F_OK) == 0;
}

uint32_t CreateEmptyFile(const std::string &path)
{
    // Not to wait for the other end of a pipe of this name.
    const int file =
        open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK, S_IRUSR | S_IWUSR | S_IRGRP);
    if (file < 0)
        return SystemErrorFromErrno(errno);
    close(file);
    return kErrorSuccess;
}

uint32_t RemoveFile(const std::string &path)
{
    return unlink(path.c_str()) == 0 ? kErrorSuccess : SystemErrorFromErrno(errno);
}

uint32_t CreateFolder(const std::string &path)
{
    std::string folder = path;
    while (folder.size() > 1 && folder.ends_with('/'))
        folder.pop_back(); // behind a separator a link would be followed
    if (mkdir(folder.c_str(), S_IRWXU) == 0)
        return kErrorSuccess;
    const int error = errno;
    struct stat facts {};
    if (error != EEXIST || lstat(folder.c_str(), &facts) != 0)
        return SystemErrorFromErrno(error);
    return S_ISDIR(facts.st_mode) && facts.st_uid == geteuid() ? kErrorAlreadyExists : kErrorAccessDenied;
}

uint32_t RemoveFolder(const std::string &path)
{
    return rmdir(path.c_str()) == 0 ? kErrorSuccess : SystemErrorFromErrno(errno);
}

std::FILE *OpenSharedFile(const std::string &path, const char *mode)
{
    return std::fopen(path.c_str(), (std::string(mode) + "e").c_str());
}

int64_t PositionOfStream(std::FILE *stream)
{
    return ftello(stream);
}

bool SizeOfFile(const std::string &path, int64_t &size)
{
    struct stat facts {};
    if (stat(path.c_str(), &facts) != 0)
        return false;
    size = facts.st_size;
    return true;
}

bool LastWriteTimeOfFile(const std::string &path, uint64_t &time)
{
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (file < 0)
        return false;
    struct stat facts {};
    const bool known = fstat(file, &facts) == 0 && !S_ISDIR(facts.st_mode);
    close(file);
    if (known)
        time = FileTimeOf(facts.st_mtim);
    return known;
}

struct FolderIterator::State {
    DIR *folder;
    std::string pattern;
};

FolderIterator::FolderIterator(const std::string &folder, const std::string &pattern)
    : state(new State{opendir(folder.c_str()), pattern})
{}

FolderIterator::~FolderIterator()
{
    if (state->folder)
        closedir(state->folder);
}

bool FolderIterator::Next(FolderEntry &entry)
{
    while (state->folder) {
        const dirent *found = readdir(state->folder);
        if (!found)
            return false;
        struct stat facts {};
        if (!MatchesPattern(found->d_name, state->pattern) ||
            fstatat(dirfd(state->folder), found->d_name, &facts, AT_SYMLINK_NOFOLLOW) != 0)
            continue; // also one that has gone meanwhile
        entry = {found->d_name, S_ISDIR(facts.st_mode), FileTimeOf(facts.st_mtim)};
        return true;
    }
    return false;
}

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
