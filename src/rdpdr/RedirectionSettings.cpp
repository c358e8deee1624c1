#include "rdpdr/RedirectionSettings.h"

#include "lib/unicode/CodeSet.h"
#include "runtime/LogCall.h"

#include <string_view>

namespace fodr {

namespace {

constexpr const char *kPlugInKey = "Software\\Orvane, Inc.\\Orvane ODPService\\Plugins\\fodr";
constexpr uint32_t kSmallestList = 3; // bytes: less holds nothing but a terminator

} // namespace

RedirectionSettings::RedirectionSettings()
    : openError(platform::RegistryOpen(platform::RegistryRoot::LocalMachine, kPlugInKey,
                                       platform::kRegKeyRead, &key))
{
    if (openError != platform::kErrorSuccess)
        key = nullptr;
}

RedirectionSettings::~RedirectionSettings()
{
    if (key)
        platform::RegistryClose(key);
}

bool RedirectionSettings::ReadNumber(const std::string &name, uint32_t *number) const
{
    uint32_t type = platform::kRegNone;
    uint32_t size = sizeof(*number);
    return platform::RegistryQuery(key, name, true, &type, number, &size) == platform::kErrorSuccess &&
           type == platform::kRegDword && size == sizeof(*number);
}

RedirectionSettings::ListResult RedirectionSettings::ReadList(const std::string &name,
                                                              std::vector<std::string> *list) const
{
    list->clear();
    uint32_t size = 0;
    uint32_t error = platform::RegistryQuery(key, name, true, nullptr, nullptr, &size);
    if (error != platform::kErrorSuccess)
        return error == platform::kErrorFileNotFound ? ListResult::Missing : ListResult::SizeFailed;
    // Two units more than asked for: the list may lack its terminators.
    std::u16string units(size / sizeof(char16_t) + 2, u'\0');
    if (platform::RegistryQuery(key, name, true, nullptr, units.data(), &size) != platform::kErrorSuccess)
        return ListResult::DataFailed;
    if (size < kSmallestList)
        return ListResult::Empty;
    for (const char16_t *text = units.c_str(); *text != u'\0';) {
        std::u16string_view view(text);
        std::string entry;
        if (Utf16ToUtf8(view, entry))
            list->push_back(entry);
        else
            LOG_WARN("An entry of %s is not valid text.\n", name.c_str());
        text += view.size() + 1;
    }
    return ListResult::Read;
}

} // namespace fodr
