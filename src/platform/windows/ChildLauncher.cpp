// Without Confinement there is no need for one.
#include "platform/ChildLauncher.h"

#ifndef _WIN32
#error "this file is the Windows side"
#endif

namespace fodr::platform {

std::unique_ptr<ChildLauncher> ChildLauncher::Create(const std::vector<ChildOptions> &, std::string *error)
{
    *error = "Windows has no such process";
    return nullptr;
}

} // namespace fodr::platform
