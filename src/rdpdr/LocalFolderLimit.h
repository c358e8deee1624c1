// What this machine offers at most: the settings' "AllowedFolders". A folder outside of it counts as one that
// isn't there, whoever asks for it. Without the value there is no limit; an empty value allows nothing, and
// so does one that can't be read, be it that the whole store can't.
#pragma once

#include <string>
#include <vector>

namespace fodr {

// What of a folder may be shared with an allow-list.
struct FolderOffer {
    bool whole;                     // the folder itself is allowed, and with it all of its files
    std::vector<std::string> files; // those that are allowed
};

// A picture of the settings at construction. Any thread.
class LocalFolderLimit {
public:
    LocalFolderLimit();

    // Whether the folder is one of the list or below one. The texts are compared component by component; a
    // ".." anywhere refuses. A refusal is logged.
    bool Allows(const std::string &folder) const;
    // Of files named below a folder those that the list allows: it may name the folder, a folder below it, or
    // the very file. The others count as files that aren't there; each is logged.
    FolderOffer OfferOfFiles(const std::string &folder, const std::vector<std::string> &names) const;

private:
    bool Contains(const std::string &ntPath) const;
    void LogRefusal(const char *what, const std::string &path) const;

    bool limited;
    bool isReadable; // else nothing is allowed
    // In NT form, which makes one of "D", "D:" and "D:\", and with one kind of separator.
    std::vector<std::string> roots;
};

} // namespace fodr
