// The lock of all that logs, one finished line, and the base of every sink.
#pragma once

#include "runtime/OVMutex.h"
#include "runtime/OVTimer.h"
#include "runtime/RCObject.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

namespace fodr {

class Logger;
class OVPollItem;

// One recursive mutex for the process, made on first use and never destroyed. Every log call and every change
// of a logger or a writer holds it; the poll thread takes it as its own lock. No lock is taken before it by
// the log path, and it may be taken under any other.
OVMutex &LoggerMutex();

// One finished line, shared by count between the writers and their queues. Never changed once it is made.
class LogMessage : public RCObject {
public:
    // Copies `length` bytes and ends them with one newline, unless they have one. Null when there is no
    // memory for the record; a record without text when there is none for the text.
    static RCPtr<LogMessage> Create(int32_t level, const char *text, size_t length);
    // A record whose text couldn't be had.
    explicit LogMessage(int32_t messageLevel) : level(messageLevel) {}
    ~LogMessage() override;

    // Null-terminated, with the newline; null when its allocation failed.
    const char *Text() const { return text; }
    // What a sink writes: the text, or "Failed to allocate memory for log message\n".
    const char *TextToWrite() const;
    int32_t Level() const { return level; }

private:
    char *text = nullptr; // malloc'ed
    int32_t level;
};

// The key of a writer in its logger; writers see a message in rising order.
enum LogWriterType : int32_t {
    LOG_WRITER_DEBUG = 0,
    LOG_WRITER_FILE = 1,
    LOG_WRITER_PROXY = 2,
    LOG_WRITER_SOCKET = 3,
    LOG_WRITER_STDOUT = 4,
    LOG_WRITER_STDERR = 5,
};

// Base of every sink. A message is delivered in one of three ways: directly, by the thread that logs, while
// buffering is off; queued, and written by the poll thread within a second, while it is on; and in batches by
// the threads that log, once a queue overflowed, from then on for good. While nothing is queued the poll
// thread isn't woken.
//
// The operations of a sink (OpenSink to EndWrite) run on the poll thread without a lock while queued, else
// under LoggerMutex; never two at once.
class LogWriter : public RCObject {
public:
    explicit LogWriter(int32_t writerType);
    ~LogWriter() override;

    // ---- What a sink is made of ----

    virtual bool ShouldDrop(const LogMessage &message);
    // Settings by name. False: not such a setting, or not now.
    virtual bool SetValue(const std::string &name, const std::string &value);
    virtual bool GetValue(const std::string &name, std::string &value);
    virtual bool OpenSink() = 0;
    virtual bool WriteMessage(const LogMessage &message) = 0;
    virtual bool CloseSink() = 0;
    // Around each batch of WriteMessage.
    virtual void BeginWrite();
    virtual void EndWrite();
    // What stands before the text; the length stored, without the terminator, `size` being 1 at least. A null
    // or empty function name gives blanks, as many as the last prefix had. Remembers the thread, so the
    // caller holds LoggerMutex, also in a sink that makes a line of its own.
    virtual int FormatPrefix(char *buffer, size_t size, const char *functionName, int32_t level)
        REQUIRES(LoggerMutex());

    // ---- For the logger ----

    // True when the writer is open now.
    bool Init();
    // Writes all that is queued and closes the sink. What comes later is dropped.
    void Close();
    // True when the message was written or queued, false when it was dropped and counted.
    bool Enqueue(RCPtr<LogMessage> message) REQUIRES(LoggerMutex());
    // True always. They wait for a write that is under way.
    bool SetBuffering(bool flag);
    bool SetEnabled(bool flag);
    bool SetQueueSize(uint32_t limit);
    // Before the writer is opened.
    void SetLogger(const RCPtr<Logger> &owner);

    int32_t Type() const { return type; }
    bool IsOpen() const { return open; }
    bool IsEnabled() const { return enabled; }
    bool IsBuffering() const { return buffering; }

protected:
    const RCPtr<Logger> &GetLogger() const { return logger; } // null for a writer that stands alone
    bool IsClosing() const { return closing; }
    // What drains the queue on the poll thread.
    RCPtr<OVPollItem> PollItem() const;

    std::string initMessage;  // first line of the sink, unless empty; for sinks
    std::string closeMessage; // last line

private:
    class PollLogWriter;

    struct Queue {
        std::deque<RCPtr<LogMessage>> messages;
        int32_t droppedCount = 0;
    };

    // A time stamp, of which only the milliseconds change within its second.
    struct TimeStamp {
        int64_t secondMS = INT64_MIN;
        bool utc = false;
        size_t length = 0;
        char text[64] = {};
    };

    bool EnableBatchMode() REQUIRES(LoggerMutex());
    void WriteInBatches() REQUIRES(LoggerMutex());
    void Drain(); // on the poll thread
    void Flush(uint32_t queueIndex, int32_t maxCount);
    void FlushAll();
    void ReportDropped(uint32_t queueIndex);
    void SwapQueues() REQUIRES(LoggerMutex());
    void WriteOwnLine(const char *functionName, const std::string &text);
    std::string_view TimeStampOfNow() REQUIRES(LoggerMutex());
    bool SetSwitch(std::atomic<bool> &value, bool flag);

    const int32_t type;
    uint32_t queueLimit = 15000;
    int32_t flushIntervalMs = 1000;
    const uint32_t processId;
    uint32_t lastThreadId = 0;
    bool firstInit = true;
    std::atomic<bool> buffering{false}; // these four change under LoggerMutex
    std::atomic<bool> open{false};
    std::atomic<bool> closing{false};
    std::atomic<bool> enabled{true};
    int prefixLength = 0;
    RCPtr<Logger> logger;
    OVElapsedTimer batchTimer; // stopped, and nothing resumes it
    bool batchMode = false;
    RCPtr<PollLogWriter> pollItem;
    Queue queues[2];          // the active one under LoggerMutex, the other one the drainer's
    uint32_t activeQueue = 0; // callers push here
    uint32_t drainQueue = 1;  // what was taken last to be drained
    TimeStamp timeStamp;
};

} // namespace fodr
