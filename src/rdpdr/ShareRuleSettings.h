// How this machine wants the names and links of its shares to be taken: the settings "caseSensitivity" and
// "linksOutside". Any thread.
#pragma once

#include "platform/Nt.h"

namespace fodr {

// As the settings are now; a value that isn't there or has no meaning counts as 0.
//   caseSensitivity   0 a create opens what is there in another case, 1 it is refused, 2 case counts
//   linksOutside      not 0: links of a share may lead out of it
[[nodiscard]] nt::ShareRules ReadShareRules();

} // namespace fodr
