// Threads of a test that begin together.
#pragma once

#include <barrier>
#include <thread>
#include <vector>

namespace fodr::test {

// Calls `body(0)` to `body(count - 1)` on threads that begin together, and waits for their ends.
template <typename Body> void AtOnce(int count, Body body)
{
    std::barrier begin(count);
    std::vector<std::jthread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&, i] {
            begin.arrive_and_wait();
            body(i);
        });
    }
}

} // namespace fodr::test
