// Entering the plug-in in the settings store and taking it out. Results are HRESULTs.
#pragma once

#include <cstdint>

namespace fodr {

// Writes "tcpEnabled" and "dll" under the plug-in's key. A library path of 260 characters or more (or none)
// writes nothing and is a success all the same.
int32_t RegisterPlugin();
// Removes the plug-in's key and leaves its parent. Always 0.
int32_t UnregisterPlugin();

} // namespace fodr
