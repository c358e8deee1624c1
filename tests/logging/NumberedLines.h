// Threads that log numbered lines at once, and the look at a log for all of them.
#pragma once

#include "runtime/LogCall.h"

#include <atomic>
#include <cstdio>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace fodr::test {

class NumberedLines {
public:
    NumberedLines()
    {
        for (int thread = 0; thread < kThreads; ++thread) {
            threads.emplace_back([this, thread] {
                for (int i = 0; i < kLines; ++i)
                    LOG_INFO("line %d of %d", i, thread);
                --running;
            });
        }
    }
    bool AreComing() const { return running > 0; }

    // All are there, each thread's in their order.
    static void ExpectIn(const std::string &log)
    {
        int next[kThreads] = {};
        std::istringstream lines(log);
        for (std::string line; std::getline(lines, line);) {
            int i = 0, thread = 0;
            const size_t text = line.find(": line ");
            if (text == std::string::npos)
                continue;
            ASSERT_EQ(std::sscanf(line.c_str() + text, ": line %d of %d", &i, &thread), 2) << line;
            EXPECT_EQ(next[thread]++, i) << line;
        }
        for (const int count : next)
            EXPECT_EQ(count, kLines);
    }

private:
    static constexpr int kThreads = 4;
    static constexpr int kLines = 2000;

    std::atomic<int> running = kThreads;
    std::vector<std::jthread> threads; // waited for at the end
};

} // namespace fodr::test
