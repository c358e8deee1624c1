// What operations wait for, beside the requests of RemoteShare.
#pragma once

#include "agent/Coroutine.h"
#include "agent/fuse/Node.h"

namespace fodr::agent {

// Until nothing of the file is on its way to the host; `writes` may be null.
inline auto AwaitWrites(std::shared_ptr<WriteBehind> writes)
{
    return AwaitCall([writes = std::move(writes)](InlineFunction<void()> done) {
        if (writes)
            writes->WhenDone(std::move(done));
        else
            done();
    });
}

// Until none of the file's handles is being closed.
inline auto AwaitNoneClosing(const NodePtr &node)
{
    return AwaitCall([&node](InlineFunction<void()> done) { node->opens.WhenNoneClosing(std::move(done)); });
}

// The facts of an open file, asked for while something else is asked of it.
class FactsUnderway {
public:
    static std::shared_ptr<FactsUnderway> Ask(RemoteShare &share, uint32_t fileId)
    {
        auto asked = std::make_shared<FactsUnderway>();
        share.QueryInformation(fileId, share.FactsClass(), [asked, &share](const IoResult &result) {
            InlineFunction<void()> ready;
            {
                const MutexLock held(asked->lock);
                asked->status = share.TakeFacts(result, &asked->facts);
                asked->arrived = true;
                ready = std::move(asked->waiter);
            }
            if (ready)
                ready();
        });
        return asked;
    }
    auto Arrival()
    {
        return AwaitCall([this](InlineFunction<void()> done) {
            {
                const MutexLock held(lock);
                if (!arrived) {
                    waiter = std::move(done);
                    return;
                }
            }
            done();
        });
    }
    // Once it has arrived.
    nt::NTSTATUS status = nt::STATUS_SUCCESS;
    FileFacts facts;

private:
    Mutex lock;
    bool arrived GUARDED_BY(lock) = false;
    InlineFunction<void()> waiter GUARDED_BY(lock);
};

// A way through a folder's gate, for as long as this lives.
class GateHold {
public:
    GateHold(NodePtr folder, NameGate::Entry gateEntry) : node(std::move(folder)), entry(gateEntry) {}
    ~GateHold()
    {
        if (node)
            node->gate.Leave(entry);
    }
    GateHold(GateHold &&other) noexcept : node(std::move(other.node)), entry(other.entry) {}
    GateHold &operator=(GateHold &&) = delete;

private:
    NodePtr node;
    NameGate::Entry entry;
};

inline Task<GateHold> PassGate(NodePtr folder, NameGate::Entry entry)
{
    if (!folder->gate.TryEnter(entry))
        co_await AwaitCall([&](InlineFunction<void()> done) { folder->gate.Enter(entry, std::move(done)); });
    co_return GateHold(folder, entry);
}

} // namespace fodr::agent
