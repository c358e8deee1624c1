// Which drive letters there are. Any thread.
//
// FODR_DRIVES ("C=/srv/c;D=/mnt/d") is the whole table. Without it C is the root, and mounted removable media
// get D and the following in order of arrival; a mount point keeps its letter while the process lives.
//
// A letter stands for a folder, whatever is in it, until something is mounted there. From then on it is a
// medium's: when that is unmounted the letter stands for nothing, and not for the empty folder on another
// disk that is left.
#pragma once

#include "lib/misc/Mutex.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace fodr::platform {

class MountTable;

class DriveLetters {
public:
    static constexpr int kCount = 26;
    using Paths = std::string[kCount]; // by letter from A on; empty: stands for nothing

    static DriveLetters &Get();

    // "/" or without a separator at its end; empty also while the letter's medium is gone.
    std::string PathOf(char letter);
    // All of them, media that have just come included.
    void CopyPaths(Paths &copy);

private:
    void Update() REQUIRES(mutex);
    void ParseTable(const std::string &text) REQUIRES(mutex);
    void AddMedia(const MountTable &mounts) REQUIRES(mutex);

    // What a letter stands for.
    struct Place {
        std::string path;
        bool isMounted = false;
        bool hasMedium = false; // something is or was mounted there

        bool IsThere() const { return isMounted || !hasMedium; }
    };
    using Places = Place[kCount];
    Places &Chosen() REQUIRES(mutex) { return variable ? table : media; }
    // From `begin` on; behind the last when there is none.
    Place *FindMedium(Place *begin, const std::string &path) REQUIRES(mutex);

    Mutex mutex;
    std::optional<std::string> variable GUARDED_BY(mutex);          // as last seen
    Places table GUARDED_BY(mutex);                                 // of the variable
    Places media GUARDED_BY(mutex);                                 // without the variable
    std::shared_ptr<const MountTable> mountsSeen GUARDED_BY(mutex); // that `media` and what is mounted go by
};

} // namespace fodr::platform
