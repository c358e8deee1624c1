// Between NT's completion filters and inotify's events.
#pragma once

#include <cstdint>

namespace fodr::ntposix {

inline constexpr uint32_t kEveryChange = 0xFFF; // all valid FILE_NOTIFY_CHANGE_* bits (MS-FSCC 2.6)

// The events that a watch with the filter has to hear of.
[[nodiscard]] uint32_t EventsOfFilter(uint32_t filter);
// What an event about an entry of a watched directory is to NT.
[[nodiscard]] uint32_t ChangesOfEvent(uint32_t event);

} // namespace fodr::ntposix
