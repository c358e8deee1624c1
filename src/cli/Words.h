// Command lines as words, and the parts of addresses that users write.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace fodr::cli {

// One line that a POSIX shell takes apart into exactly these words.
std::string JoinForShell(const std::vector<std::string> &words);

// Words separated by blanks; quotes of both kinds and backslashes keep blanks. For commands in settings.
std::vector<std::string> SplitWords(const std::string &line);

struct HostAndPort {
    std::string host; // without the brackets of an IPv6 address
    uint16_t port = 0;
};
// HOST:PORT, [V6]:PORT, and with `portAlone` also PORT, whose host is empty. Nothing for anything else.
std::optional<HostAndPort> ParseHostAndPort(const std::string &text, bool portAlone);

struct RemotePlace {
    std::string host; // user@host, as ssh takes it
    std::string path;
};
// [USER@]HOST:PATH, the host in brackets if it has colons. Nothing without both.
std::optional<RemotePlace> ParseRemotePlace(const std::string &text);

} // namespace fodr::cli
