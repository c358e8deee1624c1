// A host of the plug-in's boundary in one process: every table filled, every call recorded as a line, every
// state set by the test. There is one at a time, since the tables carry no context.
#pragma once

#include "odpservice/odpservice.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace fodr::test {

class RecordingHost {
public:
    RecordingHost();
    ~RecordingHost();

    const PluginHostRecord *Record() const { return &record; }

    // Interfaces refused by QueryInterface, by number.
    std::set<uint16_t> refused;
    std::vector<uint16_t> asked; // in order
    bool withObjectOptions = true;
    bool withExtContext = true;

    int32_t connectionState = CONNECTION_DISCONNECTED;
    int32_t sessionType = SESSION_PCOIP;
    uint32_t objectOptions = 0;
    bool connectSucceeds = true;
    bool invokeSucceeds = true;
    std::map<std::string, int32_t> objectStates; // by object name

    std::vector<std::string>
        calls; // "Connect", "CreateObject fodrDataObj 0xd", "RequestSideChannel 2 fodr" ...
    std::vector<std::string> notices; // "name|cookie|text" of each broadcast
    uint32_t subscriptionId = 7;

    // Notices to the plug-in.
    void Connection(int32_t state) { Connection(state, state); }
    void Connection(int32_t current, int32_t reported);
    void Channel(int32_t state);
    void PeerObject(const char *name);
    void Object(const std::string &name, int32_t state);
    void Deliver(const std::vector<std::string> &blocks); // as one message with that many parameters
    bool Command(const std::string &cookie, const std::string &text);

    // Connection, channel, objects: to readiness, without a side channel.
    void BringUp();

    std::string LastCall() const { return calls.empty() ? "" : calls.back(); }
    bool Called(const std::string &call) const;

    // The blocks of the messages sent, once there are `count` of them, whichever threads send them.
    std::vector<std::string> WaitForSent(size_t count);
    void AddSent(const std::string &block);

    struct ObjectHandle {
        std::string name;
        ObjectSink sink;
        void *userData;
        uint32_t flags;
    };
    struct Message {
        std::vector<std::string> blocks;
        bool posted = false;
        uint32_t extOptions = 0;
    };

    ChannelSink channelSink{};
    void *channelUserData = nullptr;
    bool sinkRegistered = false;
    std::map<std::string, ObjectHandle *> objects;
    MessageSink lastMessageSink{};
    ObserverCallback command = nullptr;
    void *commandContext = nullptr;
    std::atomic<int> liveMessages{0};
    std::atomic<bool> lastWasPosted{false};

private:
    PluginHostRecord record{};
    std::mutex sentLock;
    std::condition_variable sentMore;
    std::vector<std::string> sent; // by sentLock
};

} // namespace fodr::test
