#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/LocalPath.h"

namespace fodr::platform {

bool LocalNamesEqual(std::string_view a, std::string_view b)
{
    return a == b;
}

} // namespace fodr::platform
