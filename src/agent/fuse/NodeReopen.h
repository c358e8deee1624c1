// Finds a node's open file again after a lost connection.
#pragma once

#include "agent/fuse/NodeTable.h"

namespace fodr::agent {

// For a handle that was just opened. The table outlives it. Of a new file the id is asked for; nobody waits
// for that.
void RememberNode(RemoteShare &share, uint32_t fileId, NodeTable &table, const NodePtr &node, bool isNew);

} // namespace fodr::agent
