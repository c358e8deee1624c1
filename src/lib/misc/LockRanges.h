// The byte ranges that one owner has locked, as fcntl keeps them: a byte has one lock at most, the last that
// was set. No lock of its own.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace fodr {

struct LockedRange {
    uint64_t begin;
    uint64_t end; // the first byte behind it
    bool exclusive;
    bool operator==(const LockedRange &) const = default;
};

class LockRanges {
public:
    // Replaces what is held of the range; without a value nothing is held there afterwards. Neighbours of one
    // kind become one, or stay what they were locked as.
    enum class Neighbours { Join, Stay };
    void Set(uint64_t begin, uint64_t end, std::optional<bool> exclusive,
             Neighbours neighbours = Neighbours::Join);
    // What is held of the range, cut to it.
    std::vector<LockedRange> Within(uint64_t begin, uint64_t end) const;
    const std::vector<LockedRange> &All() const { return ranges; } // in order
    size_t Count() const { return ranges.size(); }
    bool IsEmpty() const { return ranges.empty(); }

private:
    std::vector<LockedRange> ranges;
};

inline void LockRanges::Set(uint64_t begin, uint64_t end, std::optional<bool> exclusive,
                            Neighbours neighbours)
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

inline std::vector<LockedRange> LockRanges::Within(uint64_t begin, uint64_t end) const
{
    std::vector<LockedRange> found;
    for (const LockedRange &held : ranges) {
        if (held.begin < end && begin < held.end)
            found.push_back({std::max(held.begin, begin), std::min(held.end, end), held.exclusive});
    }
    return found;
}

} // namespace fodr
