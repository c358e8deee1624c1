#include "host/PluginHost.h"

#include "host/CallGate.h"

#include <algorithm>
#include <array>
#include <atomic>

namespace fodr::host {

std::unique_ptr<PluginLibrary> PluginLibrary::Load(const std::string &path, std::string *error)
{
    auto loaded = platform::DynamicLibrary::Load(path, error);
    if (!loaded)
        return nullptr;
    std::unique_ptr<PluginLibrary> plugin(new PluginLibrary(std::move(loaded)));
    const auto find = [&](auto *function, const char *name) {
        *function = plugin->library->Find<std::remove_pointer_t<decltype(function)>>(name);
        if (*function == nullptr)
            *error = std::string("it doesn't export ") + name;
        return *function != nullptr;
    };
    const bool complete = find(&plugin->GetTokenName, ODP_EXPORT_GET_TOKEN_NAME) &&
                          find(&plugin->Init, ODP_EXPORT_INIT) && find(&plugin->Exit, ODP_EXPORT_EXIT) &&
                          find(&plugin->CreateInstance, ODP_EXPORT_CREATE_INSTANCE) &&
                          find(&plugin->DestroyInstance, ODP_EXPORT_DESTROY_INSTANCE) &&
                          find(&plugin->RegisterServer, "DllRegisterServer") &&
                          find(&plugin->UnregisterServer, "DllUnregisterServer");
    return complete ? std::move(plugin) : nullptr;
}

uint32_t MessageBus::Subscribe(const char *name, void *context, ObserverCallback callback)
{
    if (name == nullptr || callback == nullptr)
        return 0;
    auto listener = std::make_shared<Listener>();
    listener->name = name;
    listener->context = context;
    listener->callback = callback;
    const MutexLock held(lock);
    listener->id = ++lastId;
    listeners.push_back(listener);
    return listener->id;
}

void MessageBus::Unsubscribe(uint32_t id)
{
    std::shared_ptr<Listener> gone;
    {
        const MutexLock held(lock);
        const auto at = std::find_if(listeners.begin(), listeners.end(),
                                     [id](const auto &listener) { return listener->id == id; });
        if (at == listeners.end())
            return;
        gone = *at;
        listeners.erase(at);
    }
    gone->gate.CloseAndWait();
}

bool MessageBus::Send(const char *sender, const char *name, const char *cookie, const char *data, bool *taken)
{
    std::vector<std::shared_ptr<Listener>> wanted;
    if (name == nullptr || data == nullptr)
        return false;
    {
        const MutexLock held(lock);
        for (const auto &listener : listeners) {
            if (listener->name == name)
                wanted.push_back(listener);
        }
    }
    bool anyTook = false;
    for (const auto &listener : wanted) {
        const GatedCall call(listener->gate);
        if (call && listener->callback(listener->context, sender, cookie != nullptr ? cookie : "", data))
            anyTook = true;
    }
    if (taken != nullptr)
        *taken = anyTook;
    return !wanted.empty();
}

namespace {

constexpr size_t kTokenSize = 60;
std::atomic<PluginHost *> active{nullptr};

} // namespace

std::unique_ptr<PluginHost> PluginHost::Create(const std::string &pluginPath, std::string *error)
{
    auto library = PluginLibrary::Load(pluginPath, error);
    if (!library)
        return nullptr;
    std::unique_ptr<PluginHost> host(new PluginHost(std::move(library)));
    PluginHost *none = nullptr;
    if (!active.compare_exchange_strong(none, host.get())) {
        *error = "a plug-in is loaded already";
        return nullptr;
    }
    std::array<char, kTokenSize> name{};
    host->plugin->GetTokenName(name.data(), static_cast<int32_t>(name.size()));
    name.back() = '\0';
    host->token = name.data();
    const PluginHostRecord record{host.get(), &QueryHostTable};
    host->plugin->Init(&record);
    return host;
}

PluginHost::~PluginHost()
{
    PluginHost *self = this;
    if (active.load() != self)
        return;
    plugin->Exit();
    active.compare_exchange_strong(self, nullptr);
}

PluginHost *PluginHost::Active()
{
    return active;
}

void PluginHost::AddChannel(HostChannel *channel)
{
    const MutexLock held(lock);
    channels.push_back(channel);
}

void PluginHost::RemoveChannel(HostChannel *channel)
{
    const MutexLock held(lock);
    std::erase(channels, channel);
}

HostChannel *PluginHost::CurrentChannel()
{
    if (HostChannel *current = CallScope::Current())
        return current;
    const MutexLock held(lock);
    return channels.size() == 1 ? channels.front() : nullptr;
}

void *PluginHost::AddObject(std::shared_ptr<ChannelObject> object)
{
    const MutexLock held(lock);
    objects[++lastHandle] = std::move(object);
    return reinterpret_cast<void *>(lastHandle);
}

std::shared_ptr<ChannelObject> PluginHost::FindObject(void *handle)
{
    const MutexLock held(lock);
    const auto at = objects.find(reinterpret_cast<uintptr_t>(handle));
    return at != objects.end() ? at->second : nullptr;
}

std::shared_ptr<ChannelObject> PluginHost::TakeObject(void *handle)
{
    const MutexLock held(lock);
    const auto node = objects.extract(reinterpret_cast<uintptr_t>(handle));
    return node.empty() ? nullptr : node.mapped();
}

void PluginHost::DropObjects(const HostChannel *channel)
{
    const MutexLock held(lock);
    std::erase_if(objects, [channel](const auto &entry) { return entry.second->channel == channel; });
}

} // namespace fodr::host
