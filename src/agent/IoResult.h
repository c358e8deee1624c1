// The outcome of one request, taken out of its completion with every field checked against the packet.
#pragma once

#include "agent/InlineFunction.h"
#include "platform/NtStatus.h"

#include <cstdint>
#include <span>

namespace fodr::agent {

// Statuses that the agent itself gives to a request (MS-ERREF 2.3.1); the plug-in never sends them.

// The file that the handle was opened for isn't there any more, or the handle couldn't outlive its
// connection.
inline constexpr nt::NTSTATUS STATUS_FILE_INVALID = nt::NtStatus(0xC0000098);
inline constexpr nt::NTSTATUS STATUS_IO_TIMEOUT = nt::NtStatus(0xC00000B5); // no completion came in time
inline constexpr nt::NTSTATUS STATUS_INVALID_NETWORK_RESPONSE = nt::NtStatus(0xC00000C3); // malformed
inline constexpr nt::NTSTATUS STATUS_CONNECTION_DISCONNECTED = nt::NtStatus(0xC000020C);

using ByteSpan = std::span<const uint8_t>;

struct IoResult {
    nt::NTSTATUS status = nt::STATUS_SUCCESS;
    uint32_t fileId = 0;     // create
    uint8_t information = 0; // create: FILE_CREATED and its like
    uint32_t length = 0;     // write: bytes written; answers with data: their count
    ByteSpan data{};         // read, queries, listing, device control; ends with the handler's call
    ByteSpan preRead{};      // create, set information: the pre-read block, if one came; likewise

    bool Failed() const { return nt::IsError(status); }
};

// Takes one outcome, exactly once: on a reader thread, or on the thread that sends when the connection has
// ended, or on the timer's. The caller of the request holds no lock that the handler takes.
using IoHandler = InlineFunction<void(const IoResult &)>;

// What the answer to a request looks like.
enum class AnswerKind : uint8_t {
    Create,
    Length,  // write
    Data,    // read, query, listing
    Control, // data whose length field stays 0
    Status,  // all others
};

// Takes a completion apart. `limit` is the most that the answer may report or carry. A packet that can't be
// what was asked for gives STATUS_INVALID_NETWORK_RESPONSE. At least kCompletionBody bytes.
IoResult ReadCompletion(ByteSpan packet, AnswerKind kind, uint32_t limit);

} // namespace fodr::agent
