#include "platform/DynamicLibrary.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include <dlfcn.h>

namespace fodr::platform {

std::string LibraryFileName(const std::string &plainName)
{
    return "lib" + plainName + ".so";
}

std::unique_ptr<DynamicLibrary> DynamicLibrary::Load(const std::string &path, std::string *error)
{
    // It stays mapped to the end: a library may have started threads that only the end of the process ends.
    void *handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (handle == nullptr) {
        const char *reason = dlerror();
        *error = reason != nullptr ? reason : "unknown reason";
        return nullptr;
    }
    return std::unique_ptr<DynamicLibrary>(new DynamicLibrary(handle));
}

DynamicLibrary::~DynamicLibrary()
{
    dlclose(handle);
}

void *DynamicLibrary::Address(const char *name) const
{
    return dlsym(handle, name);
}

} // namespace fodr::platform
