#include "ntposix/DescriptorLimit.h"

#include <algorithm>
#include <sys/resource.h>

namespace fodr::ntposix {

namespace {

// As many handles as there can be, and some more for everyone else in the process.
constexpr rlim_t kEnough = 300'000;

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

} // namespace fodr::ntposix
