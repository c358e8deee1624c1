#include "platform/UserFolders.h"

#include "platform/SystemError.h"
#include "platform/windows/ConsoleModes.h"
#include "platform/windows/OwnedHandle.h"
#include "platform/windows/UserIdentity.h"
#include "platform/windows/WideText.h"

#include <initguid.h>
#include <knownfolders.h>
#include <shlobj.h>

#include <filesystem>

namespace fodr::platform {

namespace {

namespace fs = std::filesystem;

std::wstring KnownFolder(const GUID &id)
{
    wchar_t *path = nullptr;
    std::wstring folder;
    if (SUCCEEDED(SHGetKnownFolderPath(id, KF_FLAG_CREATE, nullptr, &path)))
        folder = path;
    CoTaskMemFree(path);
    return folder;
}

} // namespace

std::string RuntimeFolder()
{
    return Narrow(KnownFolder(FOLDERID_LocalAppData)) + "\\fodr";
}

bool CreatePrivateFolder(const std::string &path, std::string *error)
{
    std::wstring wide;
    std::error_code ignored;
    if (!Widen(path, wide)) {
        if (error)
            *error = SystemErrorText(kErrorInvalidName);
        return false;
    }
    fs::create_directories(fs::path(wide).parent_path(), ignored);
    ThisUserOnly security;
    SECURITY_ATTRIBUTES *attributes = security.Attributes();
    if (attributes && CreateDirectoryW(wide.c_str(), attributes))
        return true;
    const DWORD failure = GetLastError();
    // In a folder that others may write to, another user could have been first.
    const bool exists = failure == ERROR_ALREADY_EXISTS && fs::is_directory(wide, ignored);
    if (exists && ThisUserOwns(wide))
        return true;
    if (error)
        *error = exists ? "it belongs to somebody else" : SystemErrorText(failure);
    return false;
}

std::string TemporaryFolder()
{
    wchar_t path[1024];
    const DWORD length = GetTempPathW(1024, path);
    return length == 0 || length > 1024 ? std::string() : Narrow(std::wstring_view(path, length));
}

bool TemporaryFolderIsPerSession()
{
    return true;
}

std::string ServiceLogFolder()
{
    return Narrow(KnownFolder(FOLDERID_ProgramData)) + "\\Orvane\\ODM\\logs\\";
}

std::string GetEnvironment(const char *name)
{
    std::wstring wideName;
    if (!Widen(name, wideName))
        return {};
    std::wstring value;
    DWORD needed = GetEnvironmentVariableW(wideName.c_str(), nullptr, 0);
    while (needed > value.size()) {
        value.resize(needed);
        needed = GetEnvironmentVariableW(wideName.c_str(), value.data(), static_cast<DWORD>(value.size()));
    }
    value.resize(needed);
    return Narrow(value);
}

void SetEnvironment(const char *name, const std::string &value)
{
    std::wstring wideName;
    std::wstring wideValue;
    if (Widen(name, wideName) && Widen(value, wideValue))
        SetEnvironmentVariableW(wideName.c_str(), wideValue.c_str());
}

std::string SettingsFolder()
{
    return "HKEY_LOCAL_MACHINE";
}

std::string MakeSettingsFolder()
{
    return {}; // the registry needs none
}

bool ErrorOutputIsTerminal()
{
    return ObeysEscapes(GetStdHandle(STD_ERROR_HANDLE));
}

bool ProcessExists(uint32_t id)
{
    const OwnedHandle process(OpenProcess(SYNCHRONIZE, FALSE, id));
    if (!process)
        return GetLastError() == ERROR_ACCESS_DENIED;
    return WaitForSingleObject(process.Get(), 0) == WAIT_TIMEOUT; // a handle keeps what has ended known
}

} // namespace fodr::platform
