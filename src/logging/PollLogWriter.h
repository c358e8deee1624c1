// Drains the queue of a writer on the poll thread, once a second while there is something to drain.
#pragma once

#include "logging/LogWriter.h"
#include "runtime/OVPollItem.h"

#include <atomic>

namespace fodr {

class LogWriter::PollLogWriter : public OVPollItem {
public:
    // The writer outlives the item's last run.
    explicit PollLogWriter(LogWriter *ownWriter);

    bool Run(bool timedOut) override;
    bool IsInPoll() const { return inPoll; }

private:
    std::atomic<bool> inPoll{false};
    LogWriter *writer;
};

} // namespace fodr
