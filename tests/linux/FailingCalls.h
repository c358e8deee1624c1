// System calls that fail, for tests of what a bad disk does.
#pragma once

#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <iterator>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <thread>

namespace fodr::test {

// From now on the call fails on this thread, and for the rest of its life, with the error.
inline void FailFromNowOn(long systemCall, int error)
{
    sock_filter rules[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(systemCall), 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<uint32_t>(error)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter{std::size(rules), rules};
    ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0);
}

// Runs the body on a thread of its own, which may lose system calls.
template <typename Body> void OnSpareThread(Body body)
{
    std::thread(body).join();
}

} // namespace fodr::test
