// One run of the agent: waits for what ends it, and takes everything down in order.
#pragma once

#include "agent/Agent.h"
#include "agent/fuse/FileSystem.h"
#include "agent/fuse/FuseSession.h"
#include "agent/fuse/HandOver.h"
#include "lib/misc/Fd.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>

namespace fodr::agent {

class AgentRun final : private IClientObserver {
public:
    // `frontLine` leads to the process that was started, when this one isn't that.
    AgentRun(const AgentOptions &agentOptions, FrontLine frontLine);
    ~AgentRun();

    // One AgentExit.
    int Run(std::unique_ptr<platform::ByteStream> stream);

private:
    // Why the wait is over.
    enum class Event { None, Signal, Unmounted, Goodbye, Ended, Lost, ShareCame, Successor, TimedOut };
    // What ends a wait, beside the ends that every wait has.
    enum class Until { Loss, Share, Successor };
    using Clock = std::chrono::steady_clock;

    void OnReady() override;
    bool OnDeviceAdded(const RemoteDevice &device) override;
    void OnDeviceRemoved(uint32_t deviceId) override;
    void OnDeviceBack(const RemoteDevice &device) override;
    void OnGoodbye(const std::string &reason) override;
    void OnLost(ChannelEnd end, const std::string &reason) override;
    void OnEnded(ChannelEnd end, const std::string &reason) override;

    void WakeUp();
    Event WhatHappened(Until until);
    Event WaitFor(Until until, int timeoutMS);
    void ShowShare(const std::shared_ptr<RemoteShare> &share);
    void NoteShown(const RemoteDevice &device);
    std::pair<ChannelEnd, std::string> HowItEnded();
    int RunConnected();
    Event Serve();
    int Fail(AgentExit result, const std::string &sentence);
    bool MountNow();
    int EndedBeforeMount(Event event);
    int TakeDown(Event event);
    void WaitForWrites();

    // AgentRunLinger.cpp
    bool PrepareToLinger();
    Event Linger();
    Event GoOn(std::unique_ptr<platform::ByteStream> stream);
    void LeaveConnection();
    void TakeSuccessor();
    void RefuseOverdue();
    int SuccessorWaitMS() const;
    std::unique_ptr<platform::ByteStream> TakeNextStream();
    void BeginNextStream();
    void EndNextStream();

    const Fd wakeEvent; // an eventfd, which outlives what wakes
    Fd signals;
    AgentOptions options;
    FileSystem files;
    RdpdrClient *client = nullptr; // while there is a connection
    std::unique_ptr<FuseSession> session;

    FrontLine front;
    std::unique_ptr<HandOverSocket> handOver;
    std::optional<Successor> successor; // waits for the present connection's end
    Clock::time_point successorLimit{};
    std::thread nextThread; // while there is no connection

    Mutex lock;
    bool ready GUARDED_BY(lock) = false;
    bool goodbye GUARDED_BY(lock) = false;
    bool unmounted GUARDED_BY(lock) = false;
    bool shown GUARDED_BY(lock) = false; // a share of this connection is in the mount
    bool lost GUARDED_BY(lock) = false;  // and nothing has come for the connection yet
    std::unique_ptr<platform::ByteStream> nextStream GUARDED_BY(lock);
    bool nextWanted GUARDED_BY(lock) = false;
    bool ended GUARDED_BY(lock) = false;
    ChannelEnd channelEnd GUARDED_BY(lock) = ChannelEnd::Lost;
    std::string endReason GUARDED_BY(lock);
};

} // namespace fodr::agent
