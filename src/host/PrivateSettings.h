// The settings of a plug-in that one run of the host has loaded: the user's, except that only named folders
// are ever shared, by the rules of the run.
//
// Used by one thread. The store is chosen for the whole process, so it is made before other threads are.
#pragma once

#include "platform/Registry.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace fodr::host {

enum class PluginLog {
    AsSet, // as the user's settings say
    Trace, // everything, packets too, on standard error
};

// What the plug-in does with names and links of the shared folders, as its settings have it.
enum class NameCase : uint32_t {
    Merged = 0,      // a create opens what has the name in another case
    Insensitive = 1, // such a create is refused; all else finds names in any case
    Sensitive = 2,
};

// What one run wants of the plug-in, whatever the user's settings say.
struct PluginWishes {
    PluginLog log = PluginLog::AsSet;
    NameCase nameCase = NameCase::Sensitive;
    bool linksOutside = false; // links may lead out of the shared folders
    bool readOnly = false;     // nothing of them can be changed, whatever the agent says
};

class PrivateSettings {
public:
    // Makes the store, in `folder` if it takes one, and makes it the process's. It shares no drives, none of
    // the user's own folders, and nothing at all until Allow. Null, with a few words in `*error`, when it
    // can't be made.
    static std::unique_ptr<PrivateSettings> Create(const std::string &folder, std::string *error,
                                                   const PluginWishes &wishes = {});

    // From now on these folders, and no others, may be shared. UTF-8 in the form that the plug-in is given.
    [[nodiscard]] bool Allow(const std::vector<std::string> &folders, std::string *error);

    // Calls `handler`, on another thread, when the user has changed settings; Refresh then takes them over
    // and asks again. The handler must not block.
    void Follow(std::function<void()> handler) { store->Follow(std::move(handler)); }
    [[nodiscard]] bool Refresh(std::string *error);

private:
    explicit PrivateSettings(const PluginWishes &pluginWishes) : wishes(pluginWishes) {}

    const PluginWishes wishes;
    std::unique_ptr<platform::PrivateStore> store;
    std::vector<std::string> allowed;
};

} // namespace fodr::host
