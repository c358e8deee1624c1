#include "platform/DynamicLibrary.h"

#include "platform/SystemError.h"
#include "platform/windows/WideText.h"
#include "platform/windows/Win32.h"

#include <filesystem>

namespace fodr::platform {

std::string LibraryFileName(const std::string &plainName)
{
    return plainName + ".dll";
}

std::unique_ptr<DynamicLibrary> DynamicLibrary::Load(const std::string &path, std::string *error)
{
    std::wstring wide;
    std::error_code ignored;
    if (Widen(path, wide))
        wide = std::filesystem::absolute(wide, ignored).make_preferred().wstring();
    // What it needs itself is looked for beside it, not in the current folder.
    HMODULE module = LoadLibraryExW(wide.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (!module) {
        *error = path + ": " + SystemErrorText(GetLastError());
        return nullptr;
    }
    return std::unique_ptr<DynamicLibrary>(new DynamicLibrary(module));
}

DynamicLibrary::~DynamicLibrary()
{
    FreeLibrary(static_cast<HMODULE>(handle));
}

void *DynamicLibrary::Address(const char *name) const
{
    return reinterpret_cast<void *>(GetProcAddress(static_cast<HMODULE>(handle), name));
}

} // namespace fodr::platform
