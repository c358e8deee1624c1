// What tests give a poll thread to run.
#pragma once

#include "runtime/OVEvent.h"
#include "runtime/OVPollThread.h"

#include <functional>
#include <string>
#include <utility>

namespace fodr::test {

class FunctionItem : public OVPollItem {
public:
    using Body = std::function<bool(bool timedOut)>;
    FunctionItem(const std::string &itemName, Body itemBody) : OVPollItem(itemName), body(std::move(itemBody))
    {}
    bool Run(bool timedOut) override { return body(timedOut); }

private:
    const Body body;
};

// What an event had made ready to run before this call has run: the earlier in line is first.
inline void Settle(const RCPtr<OVPollThread> &poll)
{
    poll->WaitForItemToComplete(nullptr); // it has its place in the line then
    OVEvent ready(true, true), ran(true, false);
    const RCPtr<OVPollItem> last(new FunctionItem("last", [&](bool) {
        ran.Set();
        return false;
    }));
    poll->AddItem(last, &ready, -1);
    ran.Wait();
    last->Remove(true);
}

} // namespace fodr::test
