#include "host/PluginHost.h"

#include "host/CurrentChannel.h"
#include "host/HostTables.h"

#include <algorithm>
#include <array>
#include <atomic>

namespace fodr::host {
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
