#include "logging/LogWriter.h"

#include "logging/Logger.h"
#include "logging/LoggerManager.h"
#include "platform/Process.h"
#include "platform/Threads.h"
#include "runtime/StringUtils.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

namespace fodr {

namespace {

constexpr int32_t kPollIntervalMs = 1000;
constexpr int32_t kAll = std::numeric_limits<int32_t>::max();
constexpr size_t kBatch = 100; // in batch mode a thread writes after every so many messages

} // namespace

// Drains the queue of a writer on the poll thread, once a second while there is something to drain.
class LogWriter::PollLogWriter : public OVPollItem {
public:
    // The writer outlives the item's last run.
    explicit PollLogWriter(LogWriter *ownWriter) : OVPollItem("LogWriter"), writer(ownWriter) {}

    bool Run(bool) override
    {
        inPoll = true;
        writer->Drain();
        inPoll = false;
        return true;
    }
    bool IsInPoll() const { return inPoll; }

private:
    std::atomic<bool> inPoll{false};
    LogWriter *const writer;
};

LogWriter::LogWriter(int32_t writerType)
    : type(writerType), processId(platform::CurrentProcessId()), pollItem(new PollLogWriter(this))
{
    batchTimer.Elapsed(OVTimer::kRestartPaused);
    pollItem->SetTimeoutMS(kPollIntervalMs, false);
    pollItem->Pause(); // until something is queued
    // Each reason not to poll counts once, see SetSwitch.
    if (!enabled)
        pollItem->Disable(false);
    if (!buffering)
        pollItem->Disable(false);
}

LogWriter::~LogWriter() = default;

bool LogWriter::ShouldDrop(const LogMessage &)
{
    return false;
}

bool LogWriter::SetValue(const std::string &, const std::string &)
{
    return false;
}

bool LogWriter::GetValue(const std::string &, std::string &)
{
    return false;
}

void LogWriter::BeginWrite() {}
void LogWriter::EndWrite() {}

void LogWriter::SetLogger(const RCPtr<Logger> &owner)
{
    logger = owner;
}

RCPtr<OVPollItem> LogWriter::PollItem() const
{
    return pollItem;
}

// ---- Opening and closing ----

bool LogWriter::Init()
{
    if (open)
        return true;
    if (!OpenSink())
        return false;
    LoggerManager::Instance().GetPollThread()->AddItem(pollItem, nullptr, pollItem->GetTimeoutMS());
    open = true;
    if (firstInit) {
        WriteOwnLine("LogWriter::Init()", initMessage);
        firstInit = false;
    }
    return true;
}

void LogWriter::Close()
{
    {
        OVMutexLock lock(LoggerMutex());
        closing = true; // nothing is queued from here on
    }
    pollItem->Remove(true);
    FlushAll();
    WriteOwnLine("LogWriter::Close()", closeMessage);
    open = false;
    CloseSink();
}

void LogWriter::WriteOwnLine(const char *functionName, const std::string &text)
{
    if (text.empty())
        return;
    char line[1024];
    int length = 0;
    {
        OVMutexLock lock(LoggerMutex());
        length = FormatPrefix(line, sizeof(line), functionName, LOG_LEVEL_ALWAYS);
    }
    const std::string whole = std::string(line, static_cast<size_t>(length > 0 ? length : 0)) + text;
    if (const RCPtr<LogMessage> message = LogMessage::Create(LOG_LEVEL_ALWAYS, whole.data(), whole.size()))
        WriteMessage(*message);
}

// ---- Delivery ----

bool LogWriter::Enqueue(RCPtr<LogMessage> message)
{
    if (enabled && !buffering) {
        BeginWrite();
        WriteMessage(*message);
        EndWrite();
        return true;
    }
    Queue &queue = queues[activeQueue];
    if (!enabled || closing || ShouldDrop(*message)) {
        ++queue.droppedCount;
        return false;
    }
    queue.messages.push_back(std::move(message));
    if (batchMode)
        WriteInBatches();
    else if (!batchTimer.IsPaused() || queue.messages.size() >= queueLimit)
        EnableBatchMode();
    else if (queue.messages.size() == 1)
        pollItem->Resume();
    return true;
}

void LogWriter::WriteInBatches()
{
    if (queues[activeQueue].messages.size() % kBatch == 0) {
        Flush(activeQueue, 2 * kBatch);
        batchTimer.Elapsed(OVTimer::kLap);
    } else if (batchTimer.ElapsedMS() >= flushIntervalMs) { // never, the timer being stopped
        Flush(activeQueue, kBatch);
        batchTimer.Elapsed(OVTimer::kLap);
    }
}

bool LogWriter::EnableBatchMode()
{
    if (batchTimer.IsPaused()) {
        batchTimer.Elapsed(OVTimer::kLap); // which leaves it stopped
        pollItem->Disable(false);
    }
    if (pollItem->IsInPoll())
        return false; // the next message tries again
    constexpr std::string_view kBanner = "\n***** BATCH MODE ENABLED *****\n\n";
    if (const RCPtr<LogMessage> message =
            LogMessage::Create(LOG_LEVEL_ALWAYS, kBanner.data(), kBanner.size()))
        WriteMessage(*message);
    batchMode = true;
    return true;
}

void LogWriter::Drain()
{
    {
        OVMutexLock lock(LoggerMutex());
        // A run that was under way when batch mode began must leave the sink to the threads that log.
        if (!enabled || !buffering || batchMode)
            return;
        SwapQueues();
        // Until Enqueue has something again, be it during the writing below, there is nothing to wake up for.
        if (queues[activeQueue].messages.empty())
            pollItem->Pause();
    }
    Flush(drainQueue, kAll);
}

void LogWriter::SwapQueues()
{
    drainQueue = activeQueue;
    activeQueue ^= 1;
}

void LogWriter::Flush(uint32_t queueIndex, int32_t maxCount)
{
    std::deque<RCPtr<LogMessage>> &messages = queues[queueIndex].messages;
    if (messages.empty() || maxCount < 1)
        return;
    BeginWrite();
    for (int32_t written = 0; written < maxCount && !messages.empty(); ++written) {
        const RCPtr<LogMessage> message = std::move(messages.front());
        messages.pop_front();
        WriteMessage(*message);
    }
    ReportDropped(queueIndex);
    EndWrite();
}

void LogWriter::FlushAll()
{
    for (int i = 0; i < 2; ++i) {
        Flush(drainQueue, kAll);
        OVMutexLock lock(LoggerMutex());
        SwapQueues();
    }
}

void LogWriter::ReportDropped(uint32_t queueIndex)
{
    const int32_t count = std::exchange(queues[queueIndex].droppedCount, 0);
    if (count <= 0)
        return;
    char text[96];
    const int length = StringUtils::FormatBuffer(text, sizeof(text), "\n%s Dropped %d messages %s\n\n",
                                                 "*******", count, "*******");
    if (const RCPtr<LogMessage> message =
            LogMessage::Create(LOG_LEVEL_INFO, text, static_cast<size_t>(length)))
        WriteMessage(*message);
}

// ---- Changes while running ----

bool LogWriter::SetBuffering(bool flag)
{
    return SetSwitch(buffering, flag);
}

bool LogWriter::SetEnabled(bool flag)
{
    return SetSwitch(enabled, flag);
}

bool LogWriter::SetSwitch(std::atomic<bool> &value, bool flag)
{
    OVMutexLock lock(LoggerMutex());
    if (value == flag)
        return true;
    if (value) {
        pollItem->Disable(true);
        FlushAll();
    }
    value = flag;
    if (flag) {
        FlushAll();
        pollItem->Enable();
    }
    return true;
}

bool LogWriter::SetQueueSize(uint32_t limit)
{
    OVMutexLock lock(LoggerMutex());
    if (queueLimit == limit)
        return true;
    queueLimit = limit;
    pollItem->Disable(true);
    FlushAll();
    pollItem->Enable();
    return true;
}

OVMutex &LoggerMutex()
{
    static OVMutex &loggerMutex = *new OVMutex; // outlives whatever logs while statics go
    return loggerMutex;
}

RCPtr<LogMessage> LogMessage::Create(int32_t level, const char *text, size_t length)
{
    auto *message = new (std::nothrow) LogMessage(level);
    if (!message)
        return nullptr;
    const bool hasNewline = length > 0 && text[length - 1] == '\n';
    message->text = static_cast<char *>(malloc(length + (hasNewline ? 1 : 2)));
    if (message->text) {
        memcpy(message->text, text, length);
        if (!hasNewline)
            message->text[length++] = '\n';
        message->text[length] = 0;
    }
    return message;
}

LogMessage::~LogMessage()
{
    free(text);
}

const char *LogMessage::TextToWrite() const
{
    return text ? text : "Failed to allocate memory for log message\n";
}

} // namespace fodr
