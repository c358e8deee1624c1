#include "lib/misc/LockRanges.h"

#include <algorithm>

namespace fodr {

void LockRanges::Set(uint64_t begin, uint64_t end, std::optional<bool> exclusive, Neighbours neighbours)
{
    if (begin >= end)
        return;
    std::vector<LockedRange> parts;
    for (const LockedRange &held : ranges) {
        if (held.begin < begin)
            parts.push_back({held.begin, std::min(held.end, begin), held.exclusive});
        if (held.end > end)
            parts.push_back({std::max(held.begin, end), held.end, held.exclusive});
    }
    if (exclusive)
        parts.push_back({begin, end, *exclusive});
    std::ranges::sort(parts, {}, &LockedRange::begin);
    ranges.clear();
    for (const LockedRange &part : parts) {
        if (neighbours == Neighbours::Join && !ranges.empty() && ranges.back().end == part.begin &&
            ranges.back().exclusive == part.exclusive)
            ranges.back().end = part.end;
        else
            ranges.push_back(part);
    }
}

std::vector<LockedRange> LockRanges::Within(uint64_t begin, uint64_t end) const
{
    std::vector<LockedRange> found;
    for (const LockedRange &held : ranges) {
        if (held.begin < end && begin < held.end)
            found.push_back({std::max(held.begin, begin), std::min(held.end, end), held.exclusive});
    }
    return found;
}

} // namespace fodr
