// The host side of the boundary: the plug-in's library, the message bus, and what the plug-in names by
// handle.
#pragma once

#include "host/CallGate.h"
#include "host/ChannelObject.h"
#include "odpservice/odpservice.h"
#include "platform/Process.h"

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace fodr::host {

// The exports that a host calls.
class PluginLibrary {
public:
    // Null, with a few words in `*error`, when the library can't be loaded or lacks an export.
    static std::unique_ptr<PluginLibrary> Load(const std::string &path, std::string *error);

    ODPService_PluginGetTokenNameFn GetTokenName = nullptr;
    ODPService_PluginInitFn Init = nullptr;
    ODPService_PluginExitFn Exit = nullptr;
    ODPService_PluginCreateInstanceFn CreateInstance = nullptr;
    ODPService_PluginDestroyInstanceFn DestroyInstance = nullptr;
    DllRegisterServerFn RegisterServer = nullptr;
    DllUnregisterServerFn UnregisterServer = nullptr;

private:
    explicit PluginLibrary(std::unique_ptr<platform::DynamicLibrary> loaded) : library(std::move(loaded)) {}

    const std::unique_ptr<platform::DynamicLibrary> library;
};

// Named text messages between plug-ins and whoever else listens in this process.
//
// Any thread. A message is delivered on the sender's thread, to each listener in the order of subscription;
// no lock is held meanwhile, so a listener may send, subscribe and unsubscribe.
class MessageBus {
public:
    // An id other than 0; 0 when the name or the callback is missing.
    uint32_t Subscribe(const char *name, void *context, ObserverCallback callback);
    // After it returns no call of the callback is running, unless it is the caller's own.
    void Unsubscribe(uint32_t id);
    // `data` may be several texts, one behind the other, each with its terminator. `taken`, if not null, says
    // whether a listener took the message as good. False when nobody listens.
    bool Send(const char *sender, const char *name, const char *cookie, const char *data,
              bool *taken = nullptr);

private:
    struct Listener {
        uint32_t id;
        std::string name;
        void *context;
        ObserverCallback callback;
        CallGate gate;
    };

    Mutex lock;
    std::vector<std::shared_ptr<Listener>> listeners GUARDED_BY(lock);
    uint32_t lastId GUARDED_BY(lock) = 0;
};

// The host side of the boundary for one plug-in: loads it, gives it its tables, and keeps what the plug-in
// names by handle.
//
// There is one at a time in a process, since the tables' functions carry no context. Any thread may call it;
// channels are made and ended by one.
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

// The function tables of the boundary, filled with functions that act on the active PluginHost.
// QueryInterface of the host record: fills `table`, whose size the identifier tells. False for an identifier
// that isn't offered: those of the server role and unknown ones.
bool QueryHostTable(const OdpGuid *interfaceId, void *table);

} // namespace fodr::host
