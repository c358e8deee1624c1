// Where log files go when nobody says so.
#pragma once

#include <string>

namespace fodr {

// A service logs into the common folder of services, which has to be there; anybody else into a folder of
// the user's own among the temporary ones, which is made. With a separator at the end. False, with `folder`
// left alone, when it can't be had.
bool DefaultLogFolder(std::string &folder);

} // namespace fodr
