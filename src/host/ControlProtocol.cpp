#include "host/ControlProtocol.h"

#include <array>
#include <charconv>

namespace fodr::host {
namespace {

constexpr char kDigits[] = "0123456789ABCDEF";
constexpr char kEmptyWord[] = "%"; // which no word is written as

bool SendText(platform::ByteStream *stream, const std::string &text)
{
    const platform::ByteView block = std::as_bytes(std::span(text));
    return text.size() <= kMaxControlText && stream->Write({&block, 1});
}

// Reads until `atEnd` finds its end in what has come so far; nothing when it doesn't come.
template <typename Predicate>
std::optional<std::string> ReadText(platform::ByteStream *stream, int timeoutMS, Predicate atEnd)
{
    std::string text;
    std::array<char, 4096> buffer;
    while (!atEnd(text)) {
        const ptrdiff_t got = stream->Read(std::as_writable_bytes(std::span(buffer)), timeoutMS);
        if (got <= 0 || text.size() > kMaxControlText)
            return std::nullopt;
        text.append(buffer.data(), static_cast<size_t>(got));
    }
    return text;
}

std::optional<unsigned char> FromHex(std::string_view digits)
{
    unsigned value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
    if (digits.size() != 2 || error != std::errc() || end != digits.data() + digits.size())
        return std::nullopt;
    return static_cast<unsigned char>(value);
}

bool DecodeWord(std::string_view text, std::string *word)
{
    if (text == kEmptyWord)
        return true;
    for (size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c != '%') {
            if (c <= ' ' || c > '~')
                return false;
            word->push_back(text[i]);
            continue;
        }
        const auto value = FromHex(text.substr(i + 1, 2));
        if (!value)
            return false;
        word->push_back(static_cast<char>(*value));
        i += 2;
    }
    return !text.empty();
}

} // namespace

std::string EncodeWords(const Words &words)
{
    std::string line;
    for (const std::string &word : words) {
        if (!line.empty())
            line += '\t';
        if (word.empty())
            line += kEmptyWord;
        for (const char letter : word) {
            const auto c = static_cast<unsigned char>(letter);
            if (c > ' ' && c <= '~' && c != '%')
                line += letter;
            else
                line += {'%', kDigits[c >> 4], kDigits[c & 15]};
        }
    }
    return line;
}

std::optional<Words> DecodeWords(std::string_view line)
{
    Words words;
    for (;;) {
        const size_t end = line.find('\t');
        if (!DecodeWord(line.substr(0, end), &words.emplace_back()))
            return std::nullopt;
        if (end == std::string_view::npos)
            return words;
        line.remove_prefix(end + 1);
    }
}

bool SendRequest(platform::ByteStream *stream, const Words &request)
{
    return SendText(stream, EncodeWords(request) + "\n");
}

std::optional<Words> ReceiveRequest(platform::ByteStream *stream, int timeoutMS)
{
    const auto text =
        ReadText(stream, timeoutMS, [](const std::string &sofar) { return sofar.ends_with('\n'); });
    return text ? DecodeWords(std::string_view(*text).substr(0, text->size() - 1)) : std::nullopt;
}

// An empty line ends it.
bool SendReply(platform::ByteStream *stream, const ControlReply &reply)
{
    std::string text = EncodeWords({std::to_string(reply.code), reply.sentence}) + "\n";
    for (const Words &row : reply.rows)
        text += EncodeWords(row) + "\n";
    return SendText(stream, text + "\n");
}

std::optional<ControlReply> ReceiveReply(platform::ByteStream *stream, int timeoutMS)
{
    const auto text =
        ReadText(stream, timeoutMS, [](const std::string &sofar) { return sofar.ends_with("\n\n"); });
    if (!text)
        return std::nullopt;
    ControlReply reply;
    std::string_view rest(*text);
    for (bool first = true; rest != "\n"; first = false) {
        const size_t end = rest.find('\n');
        const auto words = DecodeWords(rest.substr(0, end));
        rest.remove_prefix(end + 1);
        if (!words || (first && words->size() != 2))
            return std::nullopt;
        if (!first) {
            reply.rows.push_back(*words);
            continue;
        }
        const std::string &code = words->front();
        if (std::from_chars(code.data(), code.data() + code.size(), reply.code).ec != std::errc())
            return std::nullopt;
        reply.sentence = words->back();
    }
    return reply;
}

} // namespace fodr::host
