#include "platform/Files.h"

#include "platform/SystemError.h"
#include "platform/windows/ConsoleModes.h"
#include "platform/windows/UserIdentity.h"
#include "platform/windows/Win32.h"

#include <initguid.h>
#include <io.h>
#include <knownfolders.h>
#include <share.h>
#include <shlobj.h>
#include <shlwapi.h>

#include <filesystem>

namespace fodr::platform {

namespace {

uint64_t NumberOf(const FILETIME &time)
{
    return static_cast<uint64_t>(time.dwHighDateTime) << 32 | time.dwLowDateTime;
}

uint32_t Outcome(BOOL succeeded)
{
    return succeeded ? kErrorSuccess : GetLastError();
}

} // namespace

uint64_t CurrentFileTime()
{
    FILETIME now{};
    GetSystemTimeAsFileTime(&now);
    return NumberOf(now);
}

bool PathExists(const std::string &path)
{
    std::wstring wide;
    return Widen(path, wide) && PathFileExistsW(wide.c_str());
}

uint32_t CreateEmptyFile(const std::string &path)
{
    std::wstring wide;
    if (!Widen(path, wide))
        return kErrorInvalidName;
    const OwnedHandle file(CreateFileW(wide.c_str(), GENERIC_READ | GENERIC_WRITE,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                                       FILE_ATTRIBUTE_NORMAL, nullptr));
    return Outcome(static_cast<bool>(file)); // GetLastError is looked at for a failure only
}

uint32_t RemoveFile(const std::string &path)
{
    std::wstring wide;
    return Widen(path, wide) ? Outcome(DeleteFileW(wide.c_str())) : kErrorInvalidName;
}

uint32_t CreateFolder(const std::string &path)
{
    std::wstring wide;
    if (!Widen(path, wide))
        return kErrorInvalidName;
    ThisUserOnly security;
    SECURITY_ATTRIBUTES *attributes = security.Attributes();
    const uint32_t error = Outcome(attributes && CreateDirectoryW(wide.c_str(), attributes));
    return error == kErrorAlreadyExists && !ThisUserOwns(wide) ? kErrorAccessDenied : error;
}

uint32_t RemoveFolder(const std::string &path)
{
    std::wstring wide;
    return Widen(path, wide) ? Outcome(RemoveDirectoryW(wide.c_str())) : kErrorInvalidName;
}

std::FILE *OpenSharedFile(const std::string &path, const char *mode)
{
    std::wstring wide;
    std::wstring wideMode;
    if (!Widen(path, wide) || !Widen(mode, wideMode)) {
        SetLastError(kErrorInvalidName);
        return nullptr;
    }
    std::FILE *file = _wfsopen(wide.c_str(), wideMode.c_str(), _SH_DENYNO);
    if (file)
        SetHandleInformation(reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file))), HANDLE_FLAG_INHERIT, 0);
    return file;
}

int64_t PositionOfStream(std::FILE *stream)
{
    return _ftelli64(stream);
}

bool SizeOfFile(const std::string &path, int64_t &size)
{
    std::wstring wide;
    WIN32_FILE_ATTRIBUTE_DATA facts{};
    if (!Widen(path, wide) || !GetFileAttributesExW(wide.c_str(), GetFileExInfoStandard, &facts))
        return false;
    size = static_cast<int64_t>(static_cast<uint64_t>(facts.nFileSizeHigh) << 32 | facts.nFileSizeLow);
    return true;
}

bool LastWriteTimeOfFile(const std::string &path, uint64_t &time)
{
    std::wstring wide;
    if (!Widen(path, wide))
        return false;
    const OwnedHandle file(CreateFileW(wide.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                       FILE_ATTRIBUTE_NORMAL, nullptr));
    FILETIME written{};
    if (!file || !GetFileTime(file.Get(), nullptr, nullptr, &written))
        return false;
    time = NumberOf(written);
    return true;
}

struct FolderIterator::State {
    HANDLE search = INVALID_HANDLE_VALUE;
    WIN32_FIND_DATAW found{};
    bool hasEntry = false;
};

FolderIterator::FolderIterator(const std::string &folder, const std::string &pattern)
    : state(std::make_unique<State>())
{
    std::wstring wide;
    std::wstring widePattern;
    if (!Widen(folder, wide) || !Widen(pattern, widePattern))
        return;
    if (!wide.ends_with(L'\\'))
        wide.push_back(L'\\');
    state->search = FindFirstFileW((wide + widePattern).c_str(), &state->found);
    state->hasEntry = state->search != INVALID_HANDLE_VALUE;
}

FolderIterator::~FolderIterator()
{
    if (state->search != INVALID_HANDLE_VALUE)
        FindClose(state->search);
}

bool FolderIterator::Next(FolderEntry &entry)
{
    if (!state->hasEntry)
        return false;
    entry = {Narrow(state->found.cFileName), (state->found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0,
             NumberOf(state->found.ftLastWriteTime)};
    state->hasEntry = FindNextFileW(state->search, &state->found);
    return true;
}

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
