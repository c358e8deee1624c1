// Windows has no like of it for a process that runs already.
#include "platform/Confinement.h"

#ifndef _WIN32
#error "this file is the Windows side"
#endif

namespace fodr::platform {

Confinement ConfineProcess(const ConfinementRules &)
{
    return {false, false, "Windows has no rules of this kind"};
}

} // namespace fodr::platform
