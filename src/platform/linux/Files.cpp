#include "platform/Files.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "lib/unicode/AsciiCase.h"
#include "platform/SystemError.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <string_view>
#include <sys/stat.h>

namespace fodr::platform {

namespace {

uint64_t FileTimeOf(const timespec &time)
{
    return (static_cast<uint64_t>(time.tv_sec) + kFileTimeEpochSeconds) * kFileTimePerSecond +
           static_cast<uint64_t>(time.tv_nsec) / 100;
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

} // namespace fodr::platform
