// What the system and its program files say of themselves. Any thread.
#pragma once

#include <string>

namespace fodr::platform {

// What a system without a registry of its own would have under "Microsoft\Windows NT\CurrentVersion": by the
// name of the value, "ProductName", say. Empty for what it doesn't tell; on Windows always, as the registry
// does.
std::string OsVersionValue(const std::string &name);

// Whether several users may work here at a time by remote desktop. Not on Linux.
bool HasRemoteDesktopServices();

// The product version in the version block that the build puts into a program or library. False for a file
// without one. A block that doesn't tell the version leaves it empty.
bool FileProductVersion(const std::string &path, std::string &version);

} // namespace fodr::platform
