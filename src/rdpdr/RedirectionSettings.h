// What the settings of this machine say of redirection, as they are at the moment of asking. One thread.
#pragma once

#include "platform/Registry.h"
#include "platform/SystemError.h"

#include <cstdint>
#include <string>
#include <vector>

namespace fodr {

class RedirectionSettings {
public:
    RedirectionSettings();
    ~RedirectionSettings();
    RedirectionSettings(const RedirectionSettings &) = delete;
    RedirectionSettings &operator=(const RedirectionSettings &) = delete;

    bool IsOpen() const { return key != nullptr; }
    // No key at all, as opposed to one that can't be opened.
    bool IsMissing() const { return openError == platform::kErrorFileNotFound; }

    // False when it isn't a number or can't be read.
    bool ReadNumber(const std::string &name, uint32_t *number) const;

    enum class ListResult {
        Missing,    // no such value
        SizeFailed, // its size couldn't be asked for
        DataFailed, // nor its data
        Empty,
        Read,
    };
    // A multi-string value, as UTF-8. `list` is empty unless the result is Read; an entry that isn't valid
    // text is logged and left out.
    ListResult ReadList(const std::string &name, std::vector<std::string> *list) const;

private:
    platform::RegistryKey key = nullptr;
    uint32_t openError;
};

} // namespace fodr
