// A host of the plug-in's boundary in one process: every table filled, every call recorded as a line, every
// state set by the test. There is one at a time, since the tables carry no context.
#pragma once

#include "Mailbox.h"
#include "odpservice/odpservice.h"

#include <atomic>
#include <cstdint>
#include <map>
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
    bool invokeSucceeds = true;
    std::map<std::string, int32_t> objectStates; // by object name
    bool reportsAtOnce = false; // CONNECTED from inside CreateObject, DISCONNECTED from inside DestroyObject
    bool reportsFromElsewhere = false; // and that on another thread

    std::vector<std::string> calls; // "Connect", "CreateObject fodrDataObj 0xd" ...

    // Notices to the plug-in.
    void Connection(int32_t state) { Connection(state, state); }
    void Connection(int32_t current, int32_t reported);
    void Channel(int32_t state);
    void PeerObject(const char *name);
    void ObjectState(const std::string &name, int32_t state);
    void Deliver(const std::vector<std::string> &blocks); // as one message with that many parameters
    bool Command(const std::string &cookie, const std::string &text);

    // Connection, channel, objects: to readiness, without a side channel.
    void BringUp();

    void ReportAtOnce(const std::string &name, int32_t state);

    bool Called(const std::string &call) const;
    bool Note(const std::string &call) // true, as most entries answer
    {
        calls.push_back(call);
        return true;
    }

    struct Object {
        std::string name;
        ObjectSink sink;
        void *userData;
    };
    struct Message {
        std::vector<std::string> blocks;
        bool posted = false;
    };

    ChannelSink channelSink{};
    void *channelUserData = nullptr;
    bool sinkRegistered = false;
    std::map<std::string, Object> objects;
    MessageSink lastMessageSink{};
    ObserverCallback command = nullptr;
    void *commandContext = nullptr;
    std::atomic<int> liveMessages{0};
    std::atomic<bool> lastWasPosted{false};
    Mailbox<std::string> sent; // the blocks of messages, whichever threads send them

private:
    PluginHostRecord record{};
};

} // namespace fodr::test
