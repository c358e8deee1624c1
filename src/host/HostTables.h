// The function tables of the boundary, filled with functions that act on the active PluginHost.
#pragma once

#include "odpservice/odpservice.h"

namespace fodr::host {

// QueryInterface of the host record: fills `table`, whose size the identifier tells. False for an identifier
// that isn't offered: those of the server role and unknown ones.
bool QueryHostTable(const OdpGuid *interfaceId, void *table);

} // namespace fodr::host
