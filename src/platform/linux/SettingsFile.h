// One settings file on disk: read when it has changed, replaced whole by writers.
#pragma once

#include "platform/linux/SettingsModel.h"

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <sys/stat.h>

namespace fodr::platform {

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
    void Refresh();
    uint32_t ChangeText(const Change &change, std::optional<std::string> &text) const;
    uint32_t Replace(const std::string &text);

    const std::string path;
    std::mutex mutex; // guards all below
    std::shared_ptr<const SettingsModel> model;
    Stamp stamp;
    std::string complaint; // about the file as last read
    bool isComplaintPending = false;
};

// Where sentences about files that aren't well-formed go. False when nobody could take it.
bool ReportSettingsComplaint(const std::string &text);

} // namespace fodr::platform
