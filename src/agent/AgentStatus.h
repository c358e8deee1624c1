// Statuses that the agent itself gives to a request (MS-ERREF 2.3.1); the plug-in never sends them.
#pragma once

#include "platform/NtStatus.h"

namespace fodr::agent {

// The file that the handle was opened for isn't there any more, or the handle couldn't outlive its
// connection.
inline constexpr nt::NTSTATUS STATUS_FILE_INVALID = nt::NtStatus(0xC0000098);
inline constexpr nt::NTSTATUS STATUS_IO_TIMEOUT = nt::NtStatus(0xC00000B5); // no completion came in time
inline constexpr nt::NTSTATUS STATUS_INVALID_NETWORK_RESPONSE = nt::NtStatus(0xC00000C3); // malformed
inline constexpr nt::NTSTATUS STATUS_CONNECTION_DISCONNECTED = nt::NtStatus(0xC000020C);

} // namespace fodr::agent
