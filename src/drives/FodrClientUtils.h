// Where a path really leads.
#pragma once

#include <string>

namespace fodr {

class FodrClientUtils {
public:
    // The path behind the symbolic links that the last component of `path` is a chain of; `path` itself when
    // it isn't one. A dangling chain gives its missing target, a looping one a link on the loop. Any thread.
    static std::string GetLinkPath(const std::string &path);
};

} // namespace fodr
