#include "host/MessageBus.h"

#include <algorithm>

namespace fodr::host {

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

} // namespace fodr::host
