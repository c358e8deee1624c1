#include "platform/OsFacts.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/linux/OsRelease.h"

#include <fstream>
#include <sys/utsname.h>

namespace fodr::platform {

std::string OsReleaseValue(std::istream &file, const std::string &key)
{
    for (std::string line; std::getline(file, line);) {
        if (!line.starts_with(key + '='))
            continue;
        std::string value;
        for (size_t i = key.size() + 1; i < line.size(); ++i) {
            if (line[i] == '\\' && i + 1 < line.size())
                value += line[++i];
            else if (line[i] != '"' && line[i] != '\'')
                value += line[i];
        }
        return value;
    }
    return {};
}

std::string OsVersionValue(const std::string &name)
{
    utsname kernel{};
    if (uname(&kernel) != 0)
        return {};
    if (name == "CurrentVersion")
        return kernel.release;
    if (name == "CurrentBuildNumber")
        return kernel.version;
    if (name != "ProductName")
        return {};
    for (const char *path : {"/etc/os-release", "/usr/lib/os-release"}) {
        std::ifstream file(path);
        std::string product = OsReleaseValue(file, "PRETTY_NAME");
        if (!product.empty())
            return product;
    }
    return kernel.sysname;
}

bool HasRemoteDesktopServices()
{
    return false;
}

} // namespace fodr::platform
