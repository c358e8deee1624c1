// Who runs a process.
#pragma once

#include "platform/windows/Win32.h"

#include <string>

namespace fodr::platform {

// The security identifier of the process's user in its text form; empty when it can't be told.
std::wstring UserOfProcess(HANDLE process);

// Makes an object one that only this user and the system may touch, and what is put into it later.
class ThisUserOnly {
public:
    ThisUserOnly();
    ~ThisUserOnly() { LocalFree(attributes.lpSecurityDescriptor); }
    ThisUserOnly(const ThisUserOnly &) = delete;
    ThisUserOnly &operator=(const ThisUserOnly &) = delete;

    // Null, with a last error, when the system doesn't tell who the user is: the object can't be made then.
    SECURITY_ATTRIBUTES *Attributes();

private:
    SECURITY_ATTRIBUTES attributes{sizeof(attributes), nullptr, FALSE};
};

// Whether this user, or a group whose objects are his, owns the file or folder.
bool ThisUserOwns(const std::wstring &path);

} // namespace fodr::platform
