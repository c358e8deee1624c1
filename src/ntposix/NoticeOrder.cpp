#include "ntposix/NoticeOrder.h"

#include "ntposix/ChangeMonitor.h"

#include <utility>

namespace fodr::nt {

namespace {

thread_local NoticeOrder::Delivery *currentDelivery = nullptr;

} // namespace

NoticeOrder::Delivery *NoticeOrder::State::OfThisThread()
{
    return currentDelivery;
}

void NoticeOrder::State::Waits(Delivery *delivery)
{
    if (!delivery || std::exchange(delivery->waits, true))
        return;
    ++delivery->order.waiting;
}

void NoticeOrder::State::Ended(Delivery *delivery)
{
    if (!delivery)
        return;
    State &state = delivery->order;
    const MutexLock guard(state.lock);
    delivery->number = ++state.lastNumber;
    state.ended.insert(delivery->number);
    state.endedOnes.store(state.ended.size());
}

void NoticeOrder::State::NotEnded(Delivery *delivery)
{
    const uint64_t number = delivery ? std::exchange(delivery->number, 0) : 0;
    if (number == 0)
        return;
    State &state = delivery->order;
    const MutexLock guard(state.lock);
    state.ended.erase(number);
    state.endedOnes.store(state.ended.size());
    state.delivered.notify_all();
}

// Only for those that have ended by now: more may come without end.
void NoticeOrder::State::WaitUntilDelivered()
{
    const MutexLock guard(lock);
    const uint64_t last = lastNumber;
    while (!ended.empty() && *ended.begin() <= last)
        delivered.wait(lock);
}

NoticeOrder::NoticeOrder() : state(std::make_unique<State>()) {}

NoticeOrder::~NoticeOrder() = default;

void NoticeOrder::Settle()
{
    // Who delivers is what others wait for.
    if (currentDelivery || state->waiting.load() == 0)
        return;
    if (const auto monitor = ntposix::ChangeMonitor::Running())
        monitor->Drain();
    if (state->endedOnes.load() != 0)
        state->WaitUntilDelivered();
}

NoticeOrder::Delivery::Delivery(NoticeOrder &ofOrder) : order(*ofOrder.state)
{
    currentDelivery = this;
}

NoticeOrder::Delivery::~Delivery()
{
    currentDelivery = nullptr;
    State::NotEnded(this);
    if (waits)
        --order.waiting;
}

} // namespace fodr::nt
