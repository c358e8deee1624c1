// What `fodr add` and its like say to a running host, and what it answers: lines of words over a local
// socket.
//
// A request is one line: a verb and its arguments. A reply is one line, the exit code and a sentence, and
// then rows of words. Words are separated by a tab; blanks, controls, '%' and bytes above 126 stand as %XX,
// so any path can be one. The connection carries one request and its reply.
#pragma once

#include "platform/ByteStream.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace fodr::host {

using Words = std::vector<std::string>;

struct ControlReply {
    int code = 0;         // exit code of the command that asked
    std::string sentence; // what went wrong, without "fodr: "; empty when nothing did
    std::vector<Words> rows;

    bool operator==(const ControlReply &) const = default;
};

inline constexpr size_t kMaxControlText = 1 << 20;

std::string EncodeWords(const Words &words);
// Nothing for a line that isn't made by EncodeWords.
std::optional<Words> DecodeWords(std::string_view line);

// Each sends or takes all of one side, and ends its part of the stream's use. False or nothing when the other
// side is gone, is too slow, or says something else.
bool SendRequest(platform::ByteStream *stream, const Words &request);
std::optional<Words> ReceiveRequest(platform::ByteStream *stream, int timeoutMS);
bool SendReply(platform::ByteStream *stream, const ControlReply &reply);
std::optional<ControlReply> ReceiveReply(platform::ByteStream *stream, int timeoutMS);

} // namespace fodr::host
