// Gives up, for good, what a process doesn't need any more. It counts for all that the process starts
// afterwards, so programs that need more are started before, or by a ChildLauncher that was made before.
#pragma once

#include <string>
#include <vector>

namespace fodr::platform {

struct Confinement {
    bool privileges = false; // no program that it starts can have more rights than it
    bool files = false;      // nothing can be written beside what was named, and no program started
    std::string problem;     // why it isn't both, in a few words
};

// What isn't there is left out.
struct ConfinementRules {
    // Folders below which files may be made, changed, renamed and removed, and files that may be written to.
    std::vector<std::string> writable;
    std::vector<std::string> tidied; // folders below which empty folders may be removed, and nothing else
};

// To be called before there are other threads. Reading stays as it is.
[[nodiscard]] Confinement ConfineProcess(const ConfinementRules &rules);

} // namespace fodr::platform
