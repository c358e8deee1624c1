// A plug-in's library: the exports that a host calls.
#pragma once

#include "odpservice/odpservice.h"
#include "platform/Process.h"

#include <memory>
#include <string>

namespace fodr::host {

class PluginLibrary {
public:
    // Null, with a few words in `*error`, when the library can't be loaded or lacks an export.
    static std::unique_ptr<PluginLibrary> Load(const std::string &path, std::string *error);

    ODPService_PluginGetTokenNameFn GetTokenName = nullptr;
    ODPService_PluginInitFn Init = nullptr;
    ODPService_PluginExitFn Exit = nullptr;
    ODPService_PluginCreateInstanceFn CreateInstance = nullptr;
    ODPService_PluginDestroyInstanceFn DestroyInstance = nullptr;
    DllRegisterServerFn RegisterServer = nullptr;
    DllUnregisterServerFn UnregisterServer = nullptr;

private:
    explicit PluginLibrary(std::unique_ptr<platform::DynamicLibrary> loaded) : library(std::move(loaded)) {}

    const std::unique_ptr<platform::DynamicLibrary> library;
};

} // namespace fodr::host
