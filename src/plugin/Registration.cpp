#include "plugin/Registration.h"

#include "lib/unicode/CodeSet.h"
#include "platform/Process.h"
#include "platform/Registry.h"

#include <string>

namespace fodr {

namespace {

using platform::RegistryKey;
using platform::RegistryRoot;

constexpr const char *kPluginsKey = "SOFTWARE\\Orvane, Inc.\\Orvane ODPService\\Plugins";
constexpr const char *kPluginName = "fodr";
constexpr size_t kPathLimit = 260; // UTF-16 units with the terminator
constexpr uint32_t kHresultOfError = 0x80070000;

// Lies in the library whose path is asked for.
const char anchor = 0;

uint32_t SetText(RegistryKey key, const char *name, const std::u16string &text)
{
    return platform::RegistrySet(key, name, platform::kRegSz, true, text.c_str(),
                                 static_cast<uint32_t>((text.size() + 1) * sizeof(char16_t)));
}

int32_t ResultOf(uint32_t error)
{
    return static_cast<int32_t>(error == 0 ? 0 : kHresultOfError | error);
}

} // namespace

int32_t RegisterPlugin()
{
    std::u16string library;
    if (!Utf8ToUtf16(platform::ModulePath(&anchor), library) || library.empty() ||
        library.size() >= kPathLimit)
        return 0; // meant: there is nothing to enter, and that is no failure
    RegistryKey key = nullptr;
    uint32_t error =
        platform::RegistryCreate(RegistryRoot::LocalMachine, std::string(kPluginsKey) + "\\" + kPluginName,
                                 platform::kRegKeyAllAccess, &key);
    if (error != 0)
        return ResultOf(error);
    error = SetText(key, "tcpEnabled", u"true");
    if (error == 0)
        error = SetText(key, "dll", library);
    platform::RegistryClose(key);
    return ResultOf(error);
}

int32_t UnregisterPlugin()
{
    RegistryKey key = nullptr;
    if (platform::RegistryOpen(RegistryRoot::LocalMachine, kPluginsKey, platform::kRegKeyAllAccess, &key) ==
        0) {
        platform::RegistryDelete(key, kPluginName);
        platform::RegistryClose(key);
    }
    return 0;
}

} // namespace fodr
