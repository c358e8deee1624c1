// A folder on this machine to mount at: checked, made when it is missing, cleaned up behind a mount.
#pragma once

#include "cli/Commands.h"

#include <functional>
#include <memory>
#include <string>

namespace fodr::cli {

class MountFolder {
public:
    // Takes the folder: clears away a mount whose process is gone, makes the folder when it isn't there.
    // Null, with a sentence in `*problem`, when it can't be used.
    static std::unique_ptr<MountFolder> Prepare(const std::string &path, std::string *problem);
    // Like Prepare, in this user's runtime folder under `name`, or a name like it when that is in use.
    static std::unique_ptr<MountFolder> PrepareDefault(const std::string &name, std::string *problem);
    // Removes the folder if it was made here, or is a default one, and is empty again.
    ~MountFolder();
    MountFolder(const MountFolder &) = delete;
    MountFolder &operator=(const MountFolder &) = delete;

    const std::string &Path() const { return path; } // absolute
    // What keeps a shared folder from being mounted here, as a sentence; empty if nothing does.
    std::string ConflictWith(const std::string &sharedPath) const;
    bool IsMadeHere() const { return made; }
    // Takes away whatever is still mounted there, by `detach`. False when it stays.
    bool Clear(const std::function<bool(const std::string &path)> &detach);

private:
    MountFolder(const std::string &folder, bool madeHere) : path(folder), made(madeHere) {}

    const std::string path;
    bool made;
};

} // namespace fodr::cli
