#include "host/ControlServer.h"

#include "platform/Files.h"
#include "platform/Process.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <filesystem>
#include <system_error>
#include <vector>

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

namespace {

constexpr int kRequestTimeoutMS = 10000;

} // namespace

std::unique_ptr<ControlServer> ControlServer::Start(const std::string &path, Handler handler,
                                                    std::string *error)
{
    auto listener = platform::ListenLocal(path, error);
    if (!listener)
        return nullptr;
    return std::unique_ptr<ControlServer>(new ControlServer(std::move(listener), std::move(handler)));
}

ControlServer::ControlServer(std::unique_ptr<platform::StreamListener> listening, Handler handling)
    : listener(std::move(listening)), handler(std::move(handling)), acceptThread([this] { AcceptMain(); })
{}

ControlServer::~ControlServer()
{
    listener->Shutdown();
    EndWaiting();
    acceptThread.join();
    EndWaiting(); // who came last
    std::list<Visitor> last;
    {
        const MutexLock held(lock);
        last.swap(visitors);
    }
    for (Visitor &visitor : last) {
        if (visitor.thread.joinable())
            visitor.thread.join();
    }
}

// Visitors whose request hasn't come yet.
void ControlServer::EndWaiting()
{
    const MutexLock held(lock);
    for (const Visitor &visitor : visitors) {
        if (!visitor.answering)
            visitor.stream->Shutdown();
    }
}

void ControlServer::AcceptMain()
{
    while (auto stream = listener->Accept()) {
        if (!stream->PeerIsThisUser())
            continue;
        Visitor *const visitor = LetIn(std::move(stream));
        // A host that is short of threads still answers, one visitor after the other.
        if (visitor && !visitor->thread.joinable())
            Serve(visitor);
    }
}

ControlServer::Visitor *ControlServer::LetIn(std::unique_ptr<platform::ByteStream> stream)
{
    const MutexLock held(lock);
    for (auto visitor = visitors.begin(); visitor != visitors.end();) {
        if (visitor->served && visitor->thread.joinable())
            visitor->thread.join();
        visitor = visitor->served ? visitors.erase(visitor) : std::next(visitor);
    }
    if (visitors.size() >= kMaxVisitors)
        return nullptr;
    Visitor &visitor = visitors.emplace_back();
    visitor.stream = std::move(stream);
    try {
        visitor.thread = std::thread([this, &visitor] { Serve(&visitor); });
    } catch (const std::system_error &) {
    }
    return &visitor;
}

void ControlServer::Serve(Visitor *visitor)
{
    const auto request = ReceiveRequest(visitor->stream.get(), kRequestTimeoutMS);
    {
        const MutexLock held(lock);
        visitor->answering = true;
    }
    if (request)
        SendReply(visitor->stream.get(), handler(*request));
    visitor->stream->Shutdown();
    const MutexLock held(lock);
    visitor->served = true;
}

namespace {

namespace fs = std::filesystem;

struct HostEntry {
    uint32_t processId;
    fs::path folder;
    fs::file_time_type started;
};

fs::path HostsFolder()
{
    return fs::path(platform::RuntimeFolder()) / ".hosts";
}

// Latest first.
std::vector<HostEntry> ListHosts()
{
    std::vector<HostEntry> hosts;
    std::error_code error;
    for (fs::directory_iterator entry(HostsFolder(), error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        HostEntry host{0, entry->path(), {}};
        const auto [last, fault] = std::from_chars(name.data(), name.data() + name.size(), host.processId);
        if (fault != std::errc() || last != name.data() + name.size())
            continue;
        std::error_code ignored;
        host.started = fs::last_write_time(ControlSocketOf(host.folder.string()), ignored);
        hosts.push_back(host);
    }
    std::sort(hosts.begin(), hosts.end(),
              [](const HostEntry &a, const HostEntry &b) { return a.started > b.started; });
    return hosts;
}

} // namespace

std::string ControlSocketOf(const std::string &hostFolder)
{
    return (fs::path(hostFolder) / "control").string();
}

std::string MakeHostFolder(std::string *error)
{
    if (!platform::CreatePrivateFolder(platform::RuntimeFolder(), error) ||
        !platform::CreatePrivateFolder(HostsFolder().string(), error))
        return {};
    const uint32_t self = platform::CurrentProcessId();
    for (const HostEntry &host : ListHosts()) {
        if (host.processId == self || !platform::ProcessExists(host.processId))
            RemoveHostFolder(host.folder.string());
    }
    const std::string folder = (HostsFolder() / std::to_string(self)).string();
    return platform::CreatePrivateFolder(folder, error) ? folder : "";
}

void RemoveHostFolder(const std::string &folder)
{
    std::error_code ignored;
    fs::remove_all(folder, ignored);
}

std::unique_ptr<platform::ByteStream> ConnectToHost(uint32_t processId)
{
    for (const HostEntry &host : ListHosts()) {
        if (processId != 0 && host.processId != processId)
            continue;
        if (auto stream = platform::ConnectLocal(ControlSocketOf(host.folder.string()), nullptr))
            return stream;
    }
    return nullptr;
}

} // namespace fodr::host
