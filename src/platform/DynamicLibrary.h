// A shared library that is loaded by its path.
#pragma once

#include <memory>
#include <string>

namespace fodr::platform {

// The file name that a library of this plain name has here.
std::string LibraryFileName(const std::string &plainName);

class DynamicLibrary {
public:
    // Null when it can't be loaded, with the system's reason in `*error`.
    static std::unique_ptr<DynamicLibrary> Load(const std::string &path, std::string *error);
    // Gives it back; functions found in it are not to be called any more.
    ~DynamicLibrary();
    DynamicLibrary(const DynamicLibrary &) = delete;
    DynamicLibrary &operator=(const DynamicLibrary &) = delete;

    // The exported function, null when there is none of the name. `Function` is a pointer type.
    template <typename Function> Function Find(const char *name) const
    {
        return reinterpret_cast<Function>(Address(name));
    }

private:
    explicit DynamicLibrary(void *loaded) : handle(loaded) {}
    void *Address(const char *name) const;

    void *const handle;
};

} // namespace fodr::platform
