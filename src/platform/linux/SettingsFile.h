// What a settings file says, parsed once and only read after that.
#pragma once

#include "lib/misc/Mutex.h"
#include "platform/linux/SettingsValue.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>

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

// One settings file on disk: read when it has changed, replaced whole by writers.

// Any thread.
class SettingsFile {
public:
    explicit SettingsFile(const std::string &filePath) : path(filePath) {}

    // What the file says now. A file that can't be read or parsed counts as empty.
    std::shared_ptr<const SettingsModel> Read();
    // The same; what is wrong with the file is said at the next Read.
    std::shared_ptr<const SettingsModel> ReadQuietly();

    // Changes the file under its lock and replaces it by rename. `change` edits and says what came of it; the
    // file is written on success only, if anything changed. A file that can't be parsed is not touched:
    // kErrorInvalidData.
    using Change = std::function<uint32_t(Glib::KeyFile &file)>;
    uint32_t Edit(const Change &change);

    const std::string &Path() const { return path; }

private:
    // A file that was written just before it was read may be written again without any of this changing.
    struct Stamp {
        struct stat facts {};
        bool exists = false;
        bool isSettled = false;

        bool IsStillThatOf(const Stamp &now) const;
    };
    Stamp TakeStamp() const;
    void Refresh() REQUIRES(mutex);
    uint32_t ChangeText(const Change &change, std::optional<std::string> &text) const;
    uint32_t Replace(const std::string &text);

    const std::string path;
    Mutex mutex;
    std::shared_ptr<const SettingsModel> model GUARDED_BY(mutex);
    Stamp stamp GUARDED_BY(mutex);
    std::string complaint GUARDED_BY(mutex); // about the file as last read
    bool isComplaintPending GUARDED_BY(mutex) = false;
};

// Where sentences about files that aren't well-formed go. False when nobody could take it.
bool ReportSettingsComplaint(const std::string &text);

} // namespace fodr::platform
