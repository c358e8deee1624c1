// The same file calls, waited for: for tests and tools. Not on a reader thread.
//
//     auto opened = BlockingCall(share.Create(call, path));
//     auto read = BlockingCall(share.Read(opened.fileId, 0, 4096));
#pragma once

#include "agent/RemoteShare.h"

#include <future>
#include <vector>

namespace fodr::agent {

// An outcome that owns its bytes.
struct OwnedResult {
    nt::NTSTATUS status = nt::STATUS_SUCCESS;
    uint32_t fileId = 0;
    uint8_t information = 0;
    uint32_t length = 0;
    std::vector<uint8_t> data;
    std::vector<uint8_t> preRead;

    bool Failed() const { return nt::IsError(status); }
    explicit OwnedResult(nt::NTSTATUS only) : status(only) {}
    explicit OwnedResult(const IoResult &result)
        : status(result.status), fileId(result.fileId), information(result.information),
          length(result.length), data(result.data.begin(), result.data.end()),
          preRead(result.preRead.begin(), result.preRead.end())
    {}
};

template <class Call> Detached Run(Call call, std::promise<OwnedResult> outcome)
{
    const auto result = co_await call;
    outcome.set_value(OwnedResult(result));
}

// The call under way: `get` waits for its outcome.
template <class Call> std::future<OwnedResult> StartCall(Call call)
{
    std::promise<OwnedResult> promise;
    std::future<OwnedResult> outcome = promise.get_future();
    Run(std::move(call), std::move(promise));
    return outcome;
}

inline std::future<OwnedResult> StartWatch(RemoteShare &share, uint32_t fileId)
{
    return StartCall(AwaitIo([&](IoHandler done) { share.NotifyChange(fileId, 1, false, std::move(done)); }));
}

template <class Call> OwnedResult BlockingCall(Call call)
{
    return StartCall(std::move(call)).get();
}

} // namespace fodr::agent
