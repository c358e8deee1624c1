// Opens a file again over a new connection, and makes sure that it is the same one.
#pragma once

#include "agent/Coroutine.h"
#include "agent/RequestTable.h"

namespace fodr::agent {

class RdpdrClient;

// `release` gets what waited for the file. Returns as soon as the first request is sent; both outlive it.
void ReopenFile(RdpdrClient &client, RequestTable &requests, uint32_t fileId,
                InlineFunction<void(RequestTable::Released)> release);

// Whether the handle is of the file that was open: STATUS_SUCCESS, STATUS_FILE_INVALID for another, or why it
// can't be told. All arguments outlive the wait.
Task<nt::NTSTATUS> CheckIdentity(RemoteShare &share, uint32_t fileId, IReopen &reopen);

} // namespace fodr::agent
