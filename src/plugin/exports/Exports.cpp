// The eight exports. Apart from the trace of entry and exit they only forward; nothing is thrown to the host.
#include "odpservice/odpservice.h"
#include "platform/Process.h"
#include "plugin/FodrClient.h"
#include "plugin/Registration.h"
#include "runtime/LogCall.h"

#include <cstdio>

namespace {

constexpr uint32_t kProcessAttach = 1;
constexpr int32_t kHresultOutOfMemory = static_cast<int32_t>(0x8007000E);

void *moduleHandle = nullptr;

} // namespace

using fodr::CallWithoutThrowing;
using fodr::FodrClient;

FODR_EXPORT int32_t DllMain(void *module, uint32_t reason, void * /*reserved*/)
{
    if (reason == kProcessAttach)
        moduleHandle = module;
    return 1;
}

FODR_EXPORT int32_t DllRegisterServer()
{
    int32_t result = kHresultOutOfMemory;
    CallWithoutThrowing("DllRegisterServer()", [&] { result = fodr::RegisterPlugin(); });
    return result;
}

FODR_EXPORT int32_t DllUnregisterServer()
{
    CallWithoutThrowing("DllUnregisterServer()", [] { fodr::UnregisterPlugin(); });
    return 0;
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
    const PluginHostRecord copy = record ? *record : PluginHostRecord{};
    CallWithoutThrowing("ODPService_PluginInit()", [&] { FodrClient::Instance().ODPPluginInit(&copy); });
    return true;
}

FODR_EXPORT bool ODPService_PluginExit()
{
    FODR_TRACE_FUNCTION();
    CallWithoutThrowing("ODPService_PluginExit()", [] { FodrClient::Instance().ODPPluginExit(); });
    return true;
}

FODR_EXPORT bool ODPService_PluginCreateInstance(void *channel, void **instance)
{
    FODR_TRACE_FUNCTION();
    bool created = false;
    CallWithoutThrowing("ODPService_PluginCreateInstance()",
                        [&] { created = FodrClient::Instance().ODPPluginCreateInstance(channel, instance); });
    return created;
}

FODR_EXPORT bool ODPService_PluginDestroyInstance(void *instance)
{
    FODR_TRACE_FUNCTION();
    CallWithoutThrowing("ODPService_PluginDestroyInstance()", [&] {
        FodrClient::Instance().ODPPluginDestroyInstance(static_cast<fodr::RPCPluginInstance *>(instance));
    });
    return true;
}
