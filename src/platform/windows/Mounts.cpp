// Folders of Windows aren't file systems that a process serves: nothing is ever mounted here.
#include "platform/Mounts.h"

#include "platform/windows/Win32.h"

namespace fodr::platform {

MountHealth InspectMount(const std::string &)
{
    return MountHealth::None;
}

MountHealth InspectEndingMount(const std::string &, const std::string &, int)
{
    return MountHealth::None;
}

bool DetachMount(const std::string &)
{
    return true;
}

std::string MountProblem()
{
    return "mounting isn't available on Windows: run the agent on a Linux machine";
}

} // namespace fodr::platform
