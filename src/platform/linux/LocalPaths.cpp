#include "platform/linux/LocalPaths.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "lib/unicode/NameMapping.h"
#include "ntposix/DirectoryIndex.h"
#include "ntposix/NtName.h"
#include "platform/SystemError.h"
#include "platform/Volumes.h"

#include <fcntl.h>

#include <filesystem>
#include <sys/stat.h>
#include <system_error>

namespace fodr::platform {

namespace {

bool IsSeparator(char16_t c)
{
    return c == u'/' || c == u'\\';
}

bool IsLetter(char16_t c)
{
    return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z');
}

bool Exists(const std::string &path)
{
    struct stat facts {};
    return lstat(path.c_str(), &facts) == 0;
}

std::string Below(const std::string &folder, const std::string &name)
{
    return folder == "/" ? folder + name : folder + '/' + name;
}

// The name in a folder that differs in case only, the one that the file calls would take; `name` itself when
// there is none.
std::string FindWithoutCase(const std::string &folder, const std::string &name)
{
    const Fd directory(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory)
        return name;
    return ntposix::DirectoryLease(directory.Get()).Find(name).value_or(name);
}

} // namespace

uint32_t ResolveLocalPath(std::u16string_view path, std::string *local)
{
    std::string resolved = "/";
    if (path.size() >= 2 && IsLetter(path[0]) && path[1] == u':') {
        resolved = LocalPathOfDriveLetter(static_cast<char>(path[0]));
        path.remove_prefix(2);
        if (resolved.empty())
            return kErrorPathNotFound;
    }
    if (!path.empty() && !IsSeparator(path[0]))
        return kErrorInvalidName;
    // A drive is never a link itself, whatever it stands for.
    std::error_code error;
    if (path.size() < 2)
        resolved = std::filesystem::weakly_canonical(resolved, error).string();
    if (error)
        return kErrorInvalidName;
    while (!path.empty() && IsSeparator(path.back()))
        path.remove_suffix(1);
    std::u16string stream; // all that counts is whose it is
    if (ntposix::NtName::SplitStream(&path, &stream) != nt::STATUS_SUCCESS)
        return kErrorInvalidName;
    bool exists = true;
    while (!path.empty()) {
        size_t end = 0;
        while (end < path.size() && !IsSeparator(path[end]))
            ++end;
        const std::u16string_view component = path.substr(0, end);
        path.remove_prefix(end < path.size() ? end + 1 : end);
        if (component.empty())
            continue;
        std::string name;
        if (!PosixNameFromNt(component, name))
            return kErrorInvalidName;
        if (exists && !Exists(Below(resolved, name))) {
            name = FindWithoutCase(resolved, name);
            exists = Exists(Below(resolved, name));
        }
        resolved = Below(resolved, name);
    }
    *local = resolved;
    return kErrorSuccess;
}

} // namespace fodr::platform
