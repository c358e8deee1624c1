// One run of the agent: waits for what ends it, and takes everything down in order.
#pragma once

#include "agent/Agent.h"
#include "agent/fuse/FileSystem.h"
#include "agent/fuse/FuseSession.h"

#include <condition_variable>
#include <memory>
#include <string>

namespace fodr::agent {

class AgentRun final : private IClientObserver {
public:
    explicit AgentRun(const AgentOptions &agentOptions);
    ~AgentRun();

    // One AgentExit.
    int Run(std::unique_ptr<platform::ByteStream> stream);

private:
    // Why the wait is over.
    enum class Event { None, Signal, Unmounted, Goodbye, Ended, ShareCame, TimedOut };

    void OnReady() override;
    void OnDeviceAdded(const RemoteDevice &device) override;
    void OnDeviceRemoved(uint32_t deviceId) override;
    void OnGoodbye(const std::string &reason) override;
    void OnEnded(ChannelEnd end, const std::string &reason) override;

    void WakeUp();
    Event WaitFor(bool forShare, int timeoutMS);
    int RunConnected();
    int Fail(AgentExit result, const std::string &sentence);
    bool MountNow();
    int EndedBeforeMount(Event event);
    int TakeDown(Event event);
    void WaitForWrites();

    AgentOptions options;
    FileSystem files;
    RdpdrClient *client = nullptr; // while there is a connection
    std::unique_ptr<FuseSession> session;
    int wakeEvent = -1;
    int signals = -1;

    transport::Mutex lock;
    bool ready GUARDED_BY(lock) = false;
    bool goodbye GUARDED_BY(lock) = false;
    bool unmounted GUARDED_BY(lock) = false;
    bool ended GUARDED_BY(lock) = false;
    ChannelEnd channelEnd GUARDED_BY(lock) = ChannelEnd::Lost;
    std::string endReason GUARDED_BY(lock);
};

} // namespace fodr::agent
