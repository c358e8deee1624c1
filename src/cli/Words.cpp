#include "cli/Words.h"

#include <algorithm>
#include <cctype>
#include <charconv>

namespace fodr::cli {
namespace {

bool NeedsNoQuotes(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
           std::string_view("-_./:@%+=,").find(c) != std::string_view::npos;
}

std::optional<uint16_t> ParsePort(std::string_view text)
{
    uint16_t port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (error != std::errc() || end != text.data() + text.size() || port == 0)
        return std::nullopt;
    return port;
}

} // namespace

std::string JoinForShell(const std::vector<std::string> &words)
{
    std::string line;
    for (const std::string &word : words) {
        if (!line.empty())
            line += ' ';
        if (!word.empty() && std::all_of(word.begin(), word.end(), NeedsNoQuotes)) {
            line += word;
            continue;
        }
        line += '\'';
        for (const char c : word)
            line += c == '\'' ? std::string("'\\''") : std::string(1, c);
        line += '\'';
    }
    return line;
}

std::vector<std::string> SplitWords(const std::string &line)
{
    std::vector<std::string> words;
    bool inWord = false;
    char quote = 0;
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (quote == 0 && (c == ' ' || c == '\t' || c == '\n')) {
            inWord = false;
            continue;
        }
        if (!inWord)
            words.emplace_back();
        inWord = true;
        if (quote == 0 && (c == '\'' || c == '"'))
            quote = c;
        else if (quote != 0 && c == quote)
            quote = 0;
        else if (c == '\\' && quote != '\'' && i + 1 < line.size())
            words.back() += line[++i];
        else
            words.back() += c;
    }
    return words;
}

std::optional<HostAndPort> ParseHostAndPort(const std::string &text, bool portAlone)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
        const auto port = portAlone ? ParsePort(text) : std::nullopt;
        return port ? std::optional<HostAndPort>({"", *port}) : std::nullopt;
    }
    std::string host = text.substr(0, colon);
    const auto port = ParsePort(std::string_view(text).substr(colon + 1));
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (bracketed)
        host = host.substr(1, host.size() - 2);
    if (!port || host.empty() || (!bracketed && host.find_first_of(":[]") != std::string::npos))
        return std::nullopt;
    return HostAndPort{host, *port};
}

std::optional<RemotePlace> ParseRemotePlace(const std::string &text)
{
    const size_t at = text.find('@');
    const size_t start = at == std::string::npos ? 0 : at + 1;
    size_t colon = text.find(':');
    RemotePlace place;
    if (start < text.size() && text[start] == '[') {
        const size_t end = text.find(']', start);
        if (end == std::string::npos || end + 1 >= text.size() || text[end + 1] != ':')
            return std::nullopt;
        colon = end + 1;
        place.host = text.substr(0, start) + text.substr(start + 1, end - start - 1);
    } else if (colon != std::string::npos) {
        place.host = text.substr(0, colon);
    }
    // A host that begins with a dash would be an option of ssh.
    if (colon == std::string::npos || place.host.empty() || place.host.front() == '-' ||
        colon + 1 == text.size() || start >= colon)
        return std::nullopt;
    place.path = text.substr(colon + 1);
    return place;
}

} // namespace fodr::cli
