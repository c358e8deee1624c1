// Named text messages between plug-ins and whoever else listens in this process.
//
// Any thread. A message is delivered on the sender's thread, to each listener in the order of subscription;
// no lock is held meanwhile, so a listener may send, subscribe and unsubscribe.
#pragma once

#include "host/CallGate.h"
#include "odpservice/odpservice.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace fodr::host {

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

} // namespace fodr::host
