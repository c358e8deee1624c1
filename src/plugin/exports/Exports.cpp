// The eight exports. Apart from the trace of entry and exit they only forward.
#include "odpservice/odpservice.h"
#include "platform/Export.h"
#include "plugin/FodrClient.h"
#include "plugin/Registration.h"
#include "runtime/FunctionTrace.h"

#include <cstdio>

namespace {

constexpr uint32_t kProcessAttach = 1;

void *moduleHandle = nullptr;

} // namespace

using fodr::FodrClient;

FODR_EXPORT int32_t DllMain(void *module, uint32_t reason, void * /*reserved*/)
{
    if (reason == kProcessAttach)
        moduleHandle = module;
    return 1;
}

FODR_EXPORT int32_t DllRegisterServer()
{
    return fodr::RegisterPlugin();
}

FODR_EXPORT int32_t DllUnregisterServer()
{
    return fodr::UnregisterPlugin();
}

FODR_EXPORT bool ODPService_PluginGetTokenName(char *buffer, int32_t size)
{
    FODR_TRACE_FUNCTION();
    if (buffer && size > 0)
        std::snprintf(buffer, static_cast<size_t>(size), "%s", FodrClient::Instance().TokenName());
    return true;
}

FODR_EXPORT bool ODPService_PluginInit(const PluginHostRecord *record)
{
    FODR_TRACE_FUNCTION();
    PluginHostRecord copy = *record;
    return FodrClient::Instance().ODPPluginInit(&copy);
}

FODR_EXPORT bool ODPService_PluginExit()
{
    FODR_TRACE_FUNCTION();
    return FodrClient::Instance().ODPPluginExit();
}

FODR_EXPORT bool ODPService_PluginCreateInstance(void *channel, void **instance)
{
    FODR_TRACE_FUNCTION();
    return FodrClient::Instance().ODPPluginCreateInstance(channel, instance);
}

FODR_EXPORT bool ODPService_PluginDestroyInstance(void *instance)
{
    FODR_TRACE_FUNCTION();
    return FodrClient::Instance().ODPPluginDestroyInstance(static_cast<fodr::RPCPluginInstance *>(instance));
}
