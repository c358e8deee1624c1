// Where the plug-in's library is.
#pragma once

#include <string>

namespace fodr::cli {

// The path of this program.
std::string OwnProgram();

// What FODR_PLUGIN names, else the library in ../lib seen from this program, else beside it. Empty, with a
// sentence in `*problem`, when there is none.
std::string FindPlugin(std::string *problem);

} // namespace fodr::cli
