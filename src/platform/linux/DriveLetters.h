// Which drive letters there are. Any thread.
//
// FODR_DRIVES ("C=/srv/c;D=/mnt/d") is the whole table. Without it C is the root, and mounted removable media
// get D and the following in order of arrival; a mount point keeps its letter while the process lives.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace fodr::platform {

class MountTable;

class DriveLetters {
public:
    static constexpr int kCount = 26;
    using Paths = std::string[kCount]; // by letter from A on; empty: stands for nothing

    static DriveLetters &Get();

    // "/" or without a separator at its end.
    std::string PathOf(char letter);
    // All of them, media that have just come included.
    void CopyPaths(Paths &copy);

private:
    // Each under `mutex`.
    void Update();
    void ParseTable(const std::string &text);
    void AddMedia(const MountTable &mounts);

    std::mutex mutex;
    std::optional<std::string> variable;          // as last seen
    Paths table;                                  // of the variable
    Paths media;                                  // without the variable
    std::shared_ptr<const MountTable> mountsSeen; // whose media have letters
};

} // namespace fodr::platform
