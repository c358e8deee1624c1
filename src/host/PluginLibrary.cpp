#include "host/PluginLibrary.h"

namespace fodr::host {

std::unique_ptr<PluginLibrary> PluginLibrary::Load(const std::string &path, std::string *error)
{
    auto loaded = platform::DynamicLibrary::Load(path, error);
    if (!loaded)
        return nullptr;
    std::unique_ptr<PluginLibrary> plugin(new PluginLibrary(std::move(loaded)));
    const auto find = [&](auto *function, const char *name) {
        *function = plugin->library->Find<std::remove_pointer_t<decltype(function)>>(name);
        if (*function == nullptr)
            *error = std::string("it doesn't export ") + name;
        return *function != nullptr;
    };
    const bool complete = find(&plugin->GetTokenName, ODP_EXPORT_GET_TOKEN_NAME) &&
                          find(&plugin->Init, ODP_EXPORT_INIT) && find(&plugin->Exit, ODP_EXPORT_EXIT) &&
                          find(&plugin->CreateInstance, ODP_EXPORT_CREATE_INSTANCE) &&
                          find(&plugin->DestroyInstance, ODP_EXPORT_DESTROY_INSTANCE) &&
                          find(&plugin->RegisterServer, "DllRegisterServer") &&
                          find(&plugin->UnregisterServer, "DllUnregisterServer");
    return complete ? std::move(plugin) : nullptr;
}

} // namespace fodr::host
