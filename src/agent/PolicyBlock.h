// The policy packet that tells the plug-in what it may share.
#pragma once

#include "agent/ClientOptions.h"

#include <cstdint>
#include <vector>

namespace fodr::agent {

// The whole packet in the form that `version` calls for: from 5 on the folders are counted and the device
// filter follows.
std::vector<uint8_t> MakePolicyPacket(const PolicyOptions &options, uint16_t version);

} // namespace fodr::agent
