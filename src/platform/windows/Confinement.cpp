// Windows has no like of it for a process that runs already.

#ifndef _WIN32
#error "this file is the Windows side"
#endif

#include "platform/Confinement.h"

namespace fodr::platform {

Confinement ConfineProcess(const ConfinementRules &)
{
    return {false, false, "Windows has no rules of this kind"};
}

// Without Confinement there is no need for one.
std::unique_ptr<ChildLauncher> ChildLauncher::Create(const std::vector<ChildOptions> &, std::string *error)
{
    *error = "Windows has no such process";
    return nullptr;
}

} // namespace fodr::platform
