// Frames over one byte stream.
//
// Threads: a reader thread hands frames to the receiver. Any thread may send; a frame is written by its
// sender with one gathering write, without copying a large payload, and small frames that meet a busy stream
// are joined into its next write. The reader never waits for the stream to take bytes: what is sent from a
// receiver's call and the stream doesn't take at once is queued, and a second thread writes it when nobody
// else does. So two ends that send without pause can't block each other.
#pragma once

#include "lib/misc/Mutex.h"
#include "platform/ByteStream.h"
#include "transport/FrameCodec.h"
#include "transport/Frames.h"

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace fodr::transport {

class IConnectionReceiver : public IFrameReceiver {
public:
    // The last call, made once, on the reader thread: the connection has ended. `reason` is a few words such
    // as "the peer closed the connection".
    virtual void OnClosed(const std::string &reason) = 0;

protected:
    ~IConnectionReceiver() = default;
};

class FrameConnection {
public:
    // `target` outlives the connection. Nothing is read before Start.
    FrameConnection(std::unique_ptr<platform::ByteStream> byteStream, IConnectionReceiver *target);
    // Closes, and waits for a receiver's call that is running. Not to be called from such a call.
    ~FrameConnection();
    FrameConnection(const FrameConnection &) = delete;
    FrameConnection &operator=(const FrameConnection &) = delete;

    void Start();
    // What the destructor does, for a connection that others may still try to send over.
    void Stop();

    // Off until it is set. May be set at any time; takes effect with the next wait.
    void SetKeepAlive(const KeepAlive &times);

    // A peer that takes nothing of a frame for so long loses the connection. Before Start.
    void SetWriteTimeout(int timeoutMS);

    // Each sends one frame; false when the connection has ended, or when the frame would break a limit of
    // Frames.h, in which case nothing is sent. True means written or queued, not received. Payloads are
    // borrowed for the call.
    bool Send(const Message &frame);
    template <class Frame> bool Send(const Frame &frame) { return SendBytes(EncodeFrame(frame)); }
    // The common message: a post with one byte block, made of two parts.
    bool SendPost(uint32_t object, uint32_t requestId, platform::ByteView block,
                  platform::ByteView tail = {});

    // Likewise without waiting for the stream to take it, for an end that has no time for a slow peer.
    bool Queue(const Goodbye &frame);

    // Waits until everything queued is written, at most `timeoutMS`. False when it isn't.
    bool Flush(int timeoutMS);

    // Ends the connection at once; waiting senders return false. The first reason given is the one that
    // OnClosed tells. Safe from any thread, any number of times.
    void Close(const std::string &reason);
    bool IsClosed() const { return closed; }

private:
    bool SendBlocks(std::span<const platform::ByteView> blocks);
    bool SendBytes(const std::vector<std::byte> &frame);
    bool QueueBlocks(std::span<const platform::ByteView> blocks, size_t size);
    bool WriteInTurn(std::span<const platform::ByteView> blocks) REQUIRES(sendLock);
    void AppendPending(std::span<const platform::ByteView> blocks, size_t written) REQUIRES(sendLock);
    void ReaderMain();
    std::string ReadUntilEnd();
    bool DrainFrames(FrameBuffer *buffer, std::string *reason);
    ptrdiff_t ReadOrPing(std::span<std::byte> room);
    void FlusherMain();

    const std::unique_ptr<platform::ByteStream> stream;
    IConnectionReceiver *const receiver;
    std::atomic<bool> closed{false};
    std::atomic<uint32_t> pingAfterMS{0};
    std::atomic<uint32_t> deadAfterMS{0};

    Mutex sendLock;
    Condition turnChanged;                     // writing, pending or closed has changed
    Condition flusherWakeup;                   // pending has bytes and no thread writes, or closed
    bool writing GUARDED_BY(sendLock) = false; // a thread holds the turn to write
    uint32_t waitingWriters GUARDED_BY(sendLock) = 0;
    std::vector<std::byte> pending GUARDED_BY(sendLock); // whole frames that wait for the next write
    std::string closeReason GUARDED_BY(sendLock);
    std::vector<std::byte> inWrite; // what pending was; the turn holder's

    std::thread reader;
    std::thread flusher;
    std::atomic<std::thread::id> readerId{};
};

// The connection of a side channel, up to the point where frames flow.

// Connects to what an agent offered, shows the secret and waits for its answer, at most `timeoutMS` for each
// of the two. Null, with a few words in `*error`, when the agent can't be reached or doesn't want us.
std::unique_ptr<platform::ByteStream> OpenSideStream(const std::string &host, const SideOffer &offer,
                                                     int timeoutMS, std::string *error);

} // namespace fodr::transport
