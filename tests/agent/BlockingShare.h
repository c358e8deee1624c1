// The same file calls, waited for: for tests and tools. Not on a reader thread.
//
//     auto opened = BlockingCall(share, &RemoteShare::Create, call, path);
//     auto read = BlockingCall(share, &RemoteShare::Read, opened.fileId, 0, 4096);
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
    explicit OwnedResult(const IoResult &result)
        : status(result.status), fileId(result.fileId), information(result.information),
          length(result.length), data(result.data.begin(), result.data.end()),
          preRead(result.preRead.begin(), result.preRead.end())
    {}
};

// The call under way: `get` waits for its outcome.
template <class Method, class... Arguments>
std::future<OwnedResult> StartCall(RemoteShare &share, Method method, Arguments &&...arguments)
{
    auto promise = std::make_unique<std::promise<OwnedResult>>();
    std::future<OwnedResult> outcome = promise->get_future();
    (share.*
     method)(std::forward<Arguments>(arguments)...,
             [kept = std::move(promise)](const IoResult &result) { kept->set_value(OwnedResult(result)); });
    return outcome;
}

template <class Method, class... Arguments>
OwnedResult BlockingCall(RemoteShare &share, Method method, Arguments &&...arguments)
{
    return StartCall(share, method, std::forward<Arguments>(arguments)...).get();
}

} // namespace fodr::agent
