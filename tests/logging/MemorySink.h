// A sink that keeps what it is given, with the marks of each batch.
#pragma once

#include "logging/Messages.h"
#include "runtime/OVPollItem.h"

#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace fodr::test {

class MemorySink : public LogWriter {
public:
    explicit MemorySink(int32_t writerType = LOG_WRITER_DEBUG) : LogWriter(writerType) {}

    bool OpenSink() override { return opens; }
    bool WriteMessage(const LogMessage &message) override
    {
        std::function<void(const LogMessage &)> handler;
        {
            std::lock_guard guard(lock);
            kept.push_back(message.TextToWrite());
            handler = onWrite;
        }
        if (handler)
            handler(message);
        return true;
    }
    bool CloseSink() override
    {
        Keep("close");
        return true;
    }
    void BeginWrite() override { Keep("("); }
    void EndWrite() override { Keep(")"); }
    bool ShouldDrop(const LogMessage &message) override
    {
        return !dropText.empty() && std::string(message.TextToWrite()).find(dropText) != std::string::npos;
    }

    // Everything since the last call.
    std::vector<std::string> Take()
    {
        std::lock_guard guard(lock);
        return std::exchange(kept, {});
    }
    // The same as one text of its messages alone, without what the poll thread says of itself.
    std::string TakeText()
    {
        std::string text;
        for (const std::string &entry : Take()) {
            if (entry.ends_with('\n') && entry.find(" OV") == std::string::npos)
                text += entry;
        }
        return text;
    }

    bool Put(const std::string &text) { return test::Enqueue(*this, text); }
    // From now on called with each message, behind it. Null for none.
    void OnWrite(std::function<void(const LogMessage &)> handler)
    {
        std::lock_guard guard(lock);
        onWrite = std::move(handler);
    }
    // What the poll thread does once a second; from a leaving on, the test alone.
    void Poll() { PollItem()->Run(true); }
    void LeavePollThread() { PollItem()->Pause(); }

    using LogWriter::closeMessage;
    using LogWriter::initMessage;
    using LogWriter::PollItem;
    bool opens = true;
    std::string dropText;

private:
    void Keep(const char *text)
    {
        std::lock_guard guard(lock);
        kept.push_back(text);
    }

    std::function<void(const LogMessage &)> onWrite;
    std::mutex lock;
    std::vector<std::string> kept;
};

} // namespace fodr::test
