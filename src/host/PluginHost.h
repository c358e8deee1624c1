// The host side of the boundary for one plug-in: loads it, gives it its tables, and keeps what the plug-in
// names by handle.
//
// There is one at a time in a process, since the tables' functions carry no context. Any thread may call it;
// channels are made and ended by one.
#pragma once

#include "host/ChannelObject.h"
#include "host/MessageBus.h"
#include "host/PluginLibrary.h"

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace fodr::host {

class PluginHost {
public:
    // Loads the plug-in and initialises it. Null, with a few words in `*error`, when that isn't possible. A
    // plug-in can't tell that its initialisation failed; it makes no instances then.
    static std::unique_ptr<PluginHost> Create(const std::string &pluginPath, std::string *error);
    // Lets the plug-in exit. All channels have ended.
    ~PluginHost();
    PluginHost(const PluginHost &) = delete;
    PluginHost &operator=(const PluginHost &) = delete;

    // The one there is, or null.
    static PluginHost *Active();

    MessageBus &Bus() { return bus; }
    const std::string &Token() const { return token; }
    const PluginLibrary &Plugin() const { return *plugin; }

    void AddChannel(HostChannel *channel);
    void RemoveChannel(HostChannel *channel);
    // The channel that the plug-in is being called for on this thread, else the only one there is, else null.
    HostChannel *CurrentChannel();

    // Handles are numbers that are never used again, so that a stale one finds nothing.
    void *AddObject(std::shared_ptr<ChannelObject> object);
    std::shared_ptr<ChannelObject> FindObject(void *handle);
    std::shared_ptr<ChannelObject> TakeObject(void *handle);
    void DropObjects(const HostChannel *channel);

private:
    explicit PluginHost(std::unique_ptr<PluginLibrary> loaded) : plugin(std::move(loaded)) {}

    const std::unique_ptr<PluginLibrary> plugin;
    std::string token;
    MessageBus bus;
    Mutex lock;
    std::vector<HostChannel *> channels GUARDED_BY(lock);
    std::unordered_map<uintptr_t, std::shared_ptr<ChannelObject>> objects GUARDED_BY(lock);
    uintptr_t lastHandle GUARDED_BY(lock) = 0;
};

} // namespace fodr::host
