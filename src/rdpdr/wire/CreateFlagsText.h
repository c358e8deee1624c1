// Names of what a create asks for (MS-SMB2 2.2.13, where they have the same values). Any thread.
#pragma once

#include <cstdint>
#include <string>

namespace fodr {

struct DR_CREATE_REQ;

// The names of the five arguments, behind a newline; bits without a name are left out.
std::string CreateFlagsText(const DR_CREATE_REQ &create);

} // namespace fodr
