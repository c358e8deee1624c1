// What the settings of this machine say of redirection, as they are at the moment of asking.
#pragma once

#include "platform/Nt.h"
#include "platform/SettingsKey.h"
#include "platform/SystemError.h"

#include <cstdint>
#include <string>
#include <vector>

namespace fodr {

// One thread.
class RedirectionSettings {
public:
    bool IsOpen() const { return key.Result() == platform::kErrorSuccess; }
    // No key at all, as opposed to one that can't be opened.
    bool IsMissing() const { return key.Result() == platform::kErrorFileNotFound; }

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
    platform::SettingsKey key;
};

// What of a folder may be shared with an allow-list.
struct FolderOffer {
    bool whole;                     // the folder itself is allowed, and with it all of its files
    std::vector<std::string> files; // those that are allowed
};

// What this machine offers at most: the settings' "AllowedFolders", as they were at construction. A folder
// outside of it counts as missing, whoever asks for it. Without the value there is no limit; an empty value
// allows nothing, and so does one that can't be read. Any thread.
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

// How this machine wants its shares to be served: the settings "caseSensitivity", "linksOutside" and
// "readOnlyShares". Any thread.
// As the settings are now; a value that isn't there or has no meaning counts as 0.
//   caseSensitivity   0 a create opens what is there in another case, 1 it is refused, 2 case counts
//   linksOutside      not 0: links of a share may lead out of it
//   readOnlyShares    not 0: nothing of a share can be changed through it
[[nodiscard]] nt::ShareRules ReadShareRules();

} // namespace fodr
