#include "ntposix/ChangeFilter.h"

#include "platform/Nt.h"

#include <sys/inotify.h>

namespace fodr::ntposix {

namespace {

constexpr uint32_t kNameEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
constexpr uint32_t kStreamChanges = 0xE00; // FILE_NOTIFY_CHANGE_STREAM_*: streams are extended attributes

struct FilterRow {
    uint32_t events;
    uint32_t changes;
};

// inotify tells of a set time, a mode and an extended attribute alike.
constexpr FilterRow kRows[] = {
    {kNameEvents, nt::FILE_NOTIFY_CHANGE_FILE_NAME | nt::FILE_NOTIFY_CHANGE_DIR_NAME},
    {IN_MODIFY, nt::FILE_NOTIFY_CHANGE_SIZE | nt::FILE_NOTIFY_CHANGE_LAST_WRITE},
    {IN_ACCESS, nt::FILE_NOTIFY_CHANGE_LAST_ACCESS},
    {IN_ATTRIB, nt::FILE_NOTIFY_CHANGE_ATTRIBUTES | nt::FILE_NOTIFY_CHANGE_LAST_WRITE |
                    nt::FILE_NOTIFY_CHANGE_LAST_ACCESS | nt::FILE_NOTIFY_CHANGE_CREATION |
                    nt::FILE_NOTIFY_CHANGE_EA | nt::FILE_NOTIFY_CHANGE_SECURITY | kStreamChanges},
};

} // namespace

uint32_t EventsOfFilter(uint32_t filter)
{
    uint32_t events = 0;
    for (const FilterRow &row : kRows)
        events |= filter & row.changes ? row.events : 0;
    return events;
}

uint32_t ChangesOfEvent(uint32_t event)
{
    uint32_t changes = 0;
    for (const FilterRow &row : kRows)
        changes |= event & row.events ? row.changes : 0;
    if (event & kNameEvents)
        changes &= ~(event & IN_ISDIR ? nt::FILE_NOTIFY_CHANGE_FILE_NAME : nt::FILE_NOTIFY_CHANGE_DIR_NAME);
    // Listing a folder reads it; a watcher that lists it upon each change would never come to rest.
    if (event & IN_ISDIR && !(event & ~static_cast<uint32_t>(IN_ACCESS | IN_ISDIR)))
        changes = 0;
    return changes;
}

} // namespace fodr::ntposix
