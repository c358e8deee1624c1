// The eight exports, and the plug-in's entry in the settings store. Nothing is thrown to the host.
#include "lib/unicode/CodeSet.h"
#include "odpservice/odpservice.h"
#include "platform/Process.h"
#include "platform/SettingsKey.h"
#include "plugin/FodrClient.h"
#include "runtime/LogCall.h"

#include <cstdio>
#include <string>

namespace {

namespace platform = fodr::platform;

constexpr uint32_t kProcessAttach = 1;
constexpr int32_t kHresultOutOfMemory = static_cast<int32_t>(0x8007000E);

void *moduleHandle = nullptr;

constexpr size_t kPathLimit = 260; // UTF-16 units with the terminator
constexpr uint32_t kHresultOfError = 0x80070000;

// Lies in the library whose path is asked for.
const char anchor = 0;

uint32_t SetText(platform::RegistryKey key, const char *name, const std::u16string &text)
{
    return platform::RegistrySet(key, name, platform::kRegSz, true, text.c_str(),
                                 static_cast<uint32_t>((text.size() + 1) * sizeof(char16_t)));
}

int32_t ResultOf(uint32_t error)
{
    return static_cast<int32_t>(error == 0 ? 0 : kHresultOfError | error);
}

// Writes "tcpEnabled" and "dll" under the plug-in's key. A library path of 260 characters or more (or none)
// writes nothing and is a success all the same.
int32_t RegisterPlugin()
{
    std::u16string library;
    if (!fodr::Utf8ToUtf16(platform::ModulePath(&anchor), library) || library.empty() ||
        library.size() >= kPathLimit)
        return 0; // meant: there is nothing to enter, and that is no failure
    const platform::SettingsKey key(platform::kPluginSettingsKey, platform::SettingsKey::Access::Write);
    uint32_t error = key.Result();
    if (error == 0)
        error = SetText(key.Get(), "tcpEnabled", u"true");
    if (error == 0)
        error = SetText(key.Get(), "dll", library);
    return ResultOf(error);
}

// Leaves the key's parent. Always 0.
int32_t UnregisterPlugin()
{
    const std::string path = platform::kPluginSettingsKey;
    const size_t separator = path.rfind('\\');
    platform::RegistryKey key = nullptr;
    if (platform::RegistryOpen(platform::RegistryRoot::LocalMachine, path.substr(0, separator),
                               platform::kRegKeyAllAccess, &key) == 0) {
        platform::RegistryDelete(key, path.substr(separator + 1));
        platform::RegistryClose(key);
    }
    return 0;
}

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
    CallWithoutThrowing("DllRegisterServer()", [&] { result = RegisterPlugin(); });
    return result;
}

FODR_EXPORT int32_t DllUnregisterServer()
{
    CallWithoutThrowing("DllUnregisterServer()", [] { UnregisterPlugin(); });
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
