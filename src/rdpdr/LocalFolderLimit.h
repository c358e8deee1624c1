// What this machine offers at most: the settings' "AllowedFolders". A folder outside of it counts as one that
// isn't there, whoever asks for it. Without the value there is no limit; an empty value allows nothing, and
// so does one that can't be read.
#pragma once

#include <string>
#include <vector>

namespace fodr {

// A picture of the settings at construction. Any thread.
class LocalFolderLimit {
public:
    LocalFolderLimit();

    // Whether the folder is one of the list or below one. The texts are compared component by component; a
    // ".." anywhere refuses. A refusal is logged.
    bool Allows(const std::string &folder) const;

private:
    bool Contains(const std::string &folder) const;

    bool limited;
    std::vector<std::string> roots; // in NT form, which makes one of "D", "D:" and "D:\"
};

} // namespace fodr
