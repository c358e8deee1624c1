// What a settings file says, parsed once and only read after that.
#pragma once

#include "platform/linux/SettingsValue.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace Glib {
class KeyFile;
} // namespace Glib

namespace fodr::platform {

// A key path or a value name as it is compared. None for a text that isn't UTF-8.
std::optional<std::u16string> FoldSettingsName(std::string_view name);

// Not empty, and no empty component: neither "a\\\\b" nor "\\a".
bool IsSettingsPath(std::string_view path);

// Loads a file. False with one sentence in `complaint` when it can't be read or parsed; a missing file is an
// empty one. Comments are kept.
bool LoadKeyFile(const std::string &path, Glib::KeyFile &file, std::string &complaint);

class SettingsModel {
public:
    using Values = std::map<std::u16string, std::optional<SettingsValue>>; // none: not well-formed

    // Every key of the file and every key above one. Names that can't be kept apart by case share their
    // values; the last one in the file holds. `complaint` gets a sentence for what isn't well-formed.
    static SettingsModel FromFile(const Glib::KeyFile &file, std::string &complaint);

    // False when the file couldn't be read or parsed, so that nothing is known of what it says.
    bool isReadable = true;

    // Null when there is no such key. Both names folded; the empty path is the root.
    const Values *FindKey(const std::u16string &path) const;
    bool HasKeysBelow(const std::u16string &path) const;

    // What a watcher of a key wants to hear of.
    struct Interest {
        std::u16string path; // folded
        bool subtree;
        bool names; // keys below it that come or go, and itself
        bool values;
    };
    // Whether the two differ in that, or in being readable at all.
    static bool Differ(const SettingsModel &before, const SettingsModel &after, const Interest &interest);

private:
    std::map<std::u16string, Values> Part(const Interest &interest) const;

    std::map<std::u16string, Values> keys;
};

} // namespace fodr::platform
