// Finds a node's open file again after a lost connection.
#pragma once

#include "agent/fuse/NodeTable.h"

namespace fodr::agent {

// For a handle that was just opened. The table outlives it. Asks for the file's id; nobody waits for that.
void RememberNode(RemoteShare &share, uint32_t fileId, const NodeTable &table, const NodePtr &node);

} // namespace fodr::agent
