#include "ntposix/Mode.h"

#include "ntposix/Link.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <sys/stat.h>

namespace fodr::ntposix {

int SetMode(int fd, mode_t mode)
{
    if (fchmod(fd, mode) == 0)
        return 0;
    if (errno != EBADF) // which an O_PATH descriptor gives
        return errno;
    return chmod(DescriptorPath(fd).c_str(), mode) == 0 ? 0 : errno;
}

mode_t WithoutSetId(mode_t mode, bool directory)
{
    return mode & ~static_cast<mode_t>(directory ? S_ISUID : S_ISUID | S_ISGID);
}

int WidenMode(int fd, mode_t mode)
{
    struct stat stat;
    if (fstat(fd, &stat) != 0)
        return errno;
    const mode_t wanted = (stat.st_mode & 07000) | WithoutSetId(mode & 07777, S_ISDIR(stat.st_mode));
    return wanted == (stat.st_mode & 07777) ? 0 : SetMode(fd, wanted);
}

// The owner first: a change of it takes set-id bits away.
int ChangeMode(int fd, const nt::FODR_MODE_CHANGE &change)
{
    constexpr uint32_t kOwners = nt::FODR_SET_OWNER | nt::FODR_SET_GROUP;
    if ((change.Fields & ~(kOwners | nt::FODR_SET_MODE)) != 0 || (change.Mode & ~nt::FODR_MODE_BITS) != 0)
        return EINVAL;
    struct stat present;
    if (fstat(fd, &present) != 0)
        return errno;
    const mode_t setId = change.Mode & ~WithoutSetId(change.Mode, S_ISDIR(present.st_mode));
    const mode_t kept = change.Fields & kOwners ? 0 : present.st_mode;
    if ((change.Fields & nt::FODR_SET_MODE) != 0 && (setId & ~kept) != 0)
        return EPERM;
    const auto chosen = [&](uint32_t field, uint32_t id) { return change.Fields & field ? id : UINT32_MAX; };
    if ((change.Fields & kOwners) != 0 &&
        fchownat(fd, "", chosen(nt::FODR_SET_OWNER, change.Owner), chosen(nt::FODR_SET_GROUP, change.Group),
                 AT_EMPTY_PATH) != 0)
        return errno;
    return change.Fields & nt::FODR_SET_MODE ? SetMode(fd, change.Mode) : 0;
}

} // namespace fodr::ntposix
