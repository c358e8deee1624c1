// Operations of several requests, written one after the other: coroutines that wait for outcomes without
// holding a thread. They go on where the outcome comes in, which is mostly a reader thread, so between two
// waits they neither block nor hold a lock.
#pragma once

#include "agent/IoResult.h"

#include <coroutine>
#include <exception>
#include <optional>
#include <tuple>
#include <utility>

namespace fodr::agent {

// A coroutine that runs at once and belongs to nobody; it frees itself at its end.
struct Detached {
    struct promise_type {
        Detached get_return_object() { return {}; }
        std::suspend_never initial_suspend() noexcept { return {}; }
        std::suspend_never final_suspend() noexcept { return {}; }
        void return_void() {}
        void unhandled_exception() { std::terminate(); }
    };
};

// What a Task without a result gives.
struct Nothing {};

// A part of another coroutine: starts when it is awaited, which has to happen once.
template <class Result> class [[nodiscard]] Task {
public:
    struct promise_type {
        std::optional<Result> result;
        std::coroutine_handle<> awaiting;

        struct Finish {
            bool await_ready() noexcept { return false; }
            std::coroutine_handle<> await_suspend(std::coroutine_handle<promise_type> ended) noexcept
            {
                return ended.promise().awaiting;
            }
            void await_resume() noexcept {}
        };
        Task get_return_object() { return Task(std::coroutine_handle<promise_type>::from_promise(*this)); }
        std::suspend_always initial_suspend() noexcept { return {}; }
        Finish final_suspend() noexcept { return {}; }
        void return_value(Result value) { result.emplace(std::move(value)); }
        void unhandled_exception() { std::terminate(); }
    };

    Task(Task &&other) noexcept : handle(std::exchange(other.handle, nullptr)) {}
    Task(const Task &) = delete;
    Task &operator=(const Task &) = delete;
    ~Task()
    {
        if (handle)
            handle.destroy();
    }

    bool await_ready() { return false; }
    std::coroutine_handle<> await_suspend(std::coroutine_handle<> awaiting)
    {
        handle.promise().awaiting = awaiting;
        return handle;
    }
    Result await_resume() { return std::move(*handle.promise().result); }

private:
    explicit Task(std::coroutine_handle<promise_type> own) : handle(own) {}
    std::coroutine_handle<promise_type> handle;
};

// Waits for what `start` hands to the handler it is given, which takes these values. Bytes that they point to
// last until the next wait. Nothing of this object is touched once `start` has been called: the coroutine
// may have gone on, and ended, on another thread by then.
template <class Start, class... Values> class [[nodiscard]] Awaiter {
public:
    explicit Awaiter(Start starter) : start(std::move(starter)) {}
    bool await_ready() { return false; }
    void await_suspend(std::coroutine_handle<> awaiting)
    {
        start([this, awaiting](const Values &...outcome) {
            values = std::tuple<Values...>(outcome...);
            awaiting.resume();
        });
    }
    auto await_resume()
    {
        if constexpr (sizeof...(Values) == 1)
            return std::get<0>(std::move(values));
        else if constexpr (sizeof...(Values) > 1)
            return std::move(values);
    }

private:
    Start start;
    std::tuple<Values...> values;
};

// Gives just the status of a request.
template <class Start> class [[nodiscard]] StatusAwaiter : public Awaiter<Start, IoResult> {
public:
    using Awaiter<Start, IoResult>::Awaiter;
    nt::NTSTATUS await_resume() { return Awaiter<Start, IoResult>::await_resume().status; }
};

// Of a request, for a handler without values, and for one with several.
template <class Start> auto AwaitIo(Start start)
{
    return Awaiter<Start, IoResult>(std::move(start));
}
template <class Start> auto AwaitStatus(Start start)
{
    return StatusAwaiter<Start>(std::move(start));
}
template <class Start> auto AwaitCall(Start start)
{
    return Awaiter<Start>(std::move(start));
}
template <class... Values, class Start> auto AwaitValues(Start start)
{
    return Awaiter<Start, Values...>(std::move(start));
}

} // namespace fodr::agent
