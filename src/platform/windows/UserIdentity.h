// Who runs a process.
#pragma once

#include "platform/windows/Win32.h"

#include <string>

namespace fodr::platform {

// The security identifier of the process's user in its text form; empty when it can't be told.
std::wstring UserOfProcess(HANDLE process);

// The descriptor of an object that only this user and the system may touch, inherited by what is put into it.
// The caller frees it with LocalFree; null when there is none to be had.
PSECURITY_DESCRIPTOR DescriptorForThisUser();

// Whether this user, or a group whose objects are his, owns the file or folder.
bool ThisUserOwns(const std::wstring &path);

} // namespace fodr::platform
