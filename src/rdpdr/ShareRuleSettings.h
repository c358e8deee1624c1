// How this machine wants its shares to be served: the settings "caseSensitivity", "linksOutside" and
// "readOnlyShares". Any thread.
#pragma once

#include "platform/Nt.h"

namespace fodr {

// As the settings are now; a value that isn't there or has no meaning counts as 0.
//   caseSensitivity   0 a create opens what is there in another case, 1 it is refused, 2 case counts
//   linksOutside      not 0: links of a share may lead out of it
//   readOnlyShares    not 0: nothing of a share can be changed through it
[[nodiscard]] nt::ShareRules ReadShareRules();

} // namespace fodr
