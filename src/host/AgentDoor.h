// Where agents come in that connect to a host: strangers come there too. Each newcomer is looked at until its
// greeting is there and is a good one, several at once, so that none can keep the others out.
#pragma once

#include "lib/misc/Mutex.h"
#include "platform/ByteStream.h"

#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace fodr::host {

// Takes as long for any text of one length, so that the time says nothing about where it differs.
bool SameToken(std::string_view a, std::string_view b);

class AgentDoor {
public:
    static constexpr int kGreetingTimeMS = 10000;
    // One more takes the place of the one that came first.
    static constexpr size_t kMostAtOnce = 16;

    // `onRefused` hears, on any thread, why a newcomer was sent away. Without a token only processes of this
    // user are let in.
    AgentDoor(std::unique_ptr<platform::StreamListener> listening, std::string expectedToken,
              std::function<void(const std::string &reason)> onRefused, int greetingTimeMS = kGreetingTimeMS);
    ~AgentDoor();
    AgentDoor(const AgentDoor &) = delete;
    AgentDoor &operator=(const AgentDoor &) = delete;

    // The next agent; its greeting can still be read from the stream. Null after Shutdown. One call at a
    // time.
    std::unique_ptr<platform::ByteStream> Await() EXCLUDES(lock);
    // Ends Await and later ones. Safe from any thread.
    void Shutdown() EXCLUDES(lock);
    uint16_t Port() const { return listener->Port(); }

private:
    struct Newcomer {
        std::shared_ptr<platform::ByteStream> stream;
        std::thread thread;
        bool seen = false; // under lock: the thread is about to end
    };

    void LookAt(Newcomer *newcomer) EXCLUDES(lock);
    // Empty when it is an agent, and `*greeting` the bytes that were read; else why it isn't.
    std::string Judge(platform::ByteStream *stream, std::vector<std::byte> *greeting) const;
    // Forgets those who were seen and, with `all`, the others as well.
    void Clear(bool all) EXCLUDES(lock);

    const std::unique_ptr<platform::StreamListener> listener;
    const std::string token;
    const std::function<void(const std::string &reason)> refused;
    const int patienceMS;
    std::list<Newcomer> newcomers; // the thread's that is in Await

    Mutex lock;
    std::unique_ptr<platform::ByteStream> agent GUARDED_BY(lock); // the first good one
    bool ended GUARDED_BY(lock) = false;
};

} // namespace fodr::host
