// A settings store for one run of a plug-in: the user's, except that only named folders are ever shared.
//
// Used by one thread. The store is chosen through the environment, so it is made before other threads are.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace fodr::host {

class PrivateSettings {
public:
    // Copies the user's store into `folder`, which this user alone may enter, and makes it the process's. The
    // copy shares no drives, none of the user's own folders, and nothing at all until Allow. A user's store
    // that can't be read counts as empty. Null, with a few words in `*error`, when the copy can't be written.
    static std::unique_ptr<PrivateSettings> Create(const std::string &folder, std::string *error);
    // Removes the folder.
    ~PrivateSettings();
    PrivateSettings(const PrivateSettings &) = delete;
    PrivateSettings &operator=(const PrivateSettings &) = delete;

    // From now on these folders, and no others, may be shared. UTF-8 in the form that the plug-in is given.
    [[nodiscard]] bool Allow(const std::vector<std::string> &folders, std::string *error);

private:
    explicit PrivateSettings(const std::string &storeFolder) : folder(storeFolder) {}
    bool Write(const std::vector<std::string> &folders, std::string *error);

    const std::string folder;
};

} // namespace fodr::host
