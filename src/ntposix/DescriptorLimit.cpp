#include "ntposix/DescriptorLimit.h"

#include "ntposix/Fd.h"

#include <fcntl.h>

#include <algorithm>
#include <atomic>
#include <sys/resource.h>

namespace fodr::ntposix {

namespace {

// As many handles as there can be, and some more for everyone else in the process.
constexpr rlim_t kEnough = 300'000;
constexpr int kNear = 64;
constexpr int kOfAnOpen = 8; // descriptors that an open has at most, with those of the way to the file

std::atomic<int> ceiling{0}; // the first number of the reserve; 0: not known yet
std::atomic<int> lastKept{0};

int ReadCeiling()
{
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return ceiling.load();
    const int most = static_cast<int>(std::min(limit.rlim_cur, kEnough));
    const int first = std::max(most - std::min(kDescriptorReserve, most / 4), 1);
    ceiling.store(first);
    return first;
}

} // namespace

bool RaiseDescriptorLimit()
{
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return false;
    const rlim_t raised = std::min(limit.rlim_max, kEnough);
    if (raised <= limit.rlim_cur)
        return false;
    limit.rlim_cur = raised;
    return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

bool MayKeepDescriptor(int fd)
{
    lastKept.store(fd, std::memory_order_relaxed);
    if (fd < ceiling.load(std::memory_order_relaxed) || fd < ReadCeiling())
        return true;
    return RaiseDescriptorLimit() && fd < ReadCeiling();
}

bool HasDescriptorRoom()
{
    const int first = ceiling.load(std::memory_order_relaxed);
    if (first == 0 || lastKept.load(std::memory_order_relaxed) < first - kNear)
        return true;
    const Fd probe(open("/", O_PATH | O_CLOEXEC));
    return probe && MayKeepDescriptor(probe.Get() + kOfAnOpen);
}

} // namespace fodr::ntposix
