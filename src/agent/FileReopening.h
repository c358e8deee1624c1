// Opens a file again over a new connection, and makes sure that it is the same one.
#pragma once

#include "agent/RequestTable.h"

namespace fodr::agent {

class RdpdrClient;

// `release` gets what waited for the file. Returns as soon as the first request is sent; both outlive it.
void ReopenFile(RdpdrClient &client, RequestTable &requests, uint32_t fileId,
                InlineFunction<void(RequestTable::Released)> release);

} // namespace fodr::agent
