#include "host/AgentDoor.h"

#include "transport/FrameCodec.h"

#include <algorithm>
#include <chrono>
#include <system_error>
#include <utility>

namespace fodr::host {
namespace {

using platform::ByteStream;
using Clock = std::chrono::steady_clock;

constexpr int kLookMS = 10; // how often Await looks up from the listener while somebody is looked at
constexpr uint32_t kLongestGreeting = 512;

// A stream of which something was read already.
class ReplayedStream final : public ByteStream {
public:
    ReplayedStream(std::shared_ptr<ByteStream> stream, std::vector<std::byte> first)
        : inner(std::move(stream)), bytes(std::move(first))
    {}

    ptrdiff_t Read(std::span<std::byte> buffer, int timeoutMS) override
    {
        if (at == bytes.size())
            return inner->Read(buffer, timeoutMS);
        const size_t count = std::min(buffer.size(), bytes.size() - at);
        std::copy_n(bytes.begin() + static_cast<ptrdiff_t>(at), count, buffer.begin());
        at += count;
        return static_cast<ptrdiff_t>(count);
    }
    bool Write(std::span<const platform::ByteView> blocks) override { return inner->Write(blocks); }
    size_t TryWrite(std::span<const platform::ByteView> blocks) override { return inner->TryWrite(blocks); }
    void SetWriteTimeout(int timeoutMS) override { inner->SetWriteTimeout(timeoutMS); }
    bool WriteTimedOut() const override { return inner->WriteTimedOut(); }
    void Shutdown() override { inner->Shutdown(); }
    bool PeerIsThisUser() const override { return inner->PeerIsThisUser(); }

private:
    const std::shared_ptr<ByteStream> inner;
    const std::vector<std::byte> bytes;
    size_t at = 0; // the reader's
};

// Appends so many bytes; false when they don't come in time.
bool ReadMore(ByteStream *stream, size_t count, Clock::time_point end, std::vector<std::byte> *bytes)
{
    const size_t size = bytes->size() + count;
    for (size_t have = bytes->size(); have < size;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0)
            return false;
        bytes->resize(size);
        const ptrdiff_t got = stream->Read(std::span(*bytes).subspan(have), static_cast<int>(left));
        if (got <= 0)
            return false;
        have += static_cast<size_t>(got);
    }
    return true;
}

} // namespace

bool SameToken(std::string_view a, std::string_view b)
{
    unsigned difference = a.size() != b.size();
    for (size_t i = 0; i < a.size() && i < b.size(); ++i)
        difference |= static_cast<unsigned char>(a[i] ^ b[i]);
    return difference == 0;
}

AgentDoor::AgentDoor(std::unique_ptr<platform::StreamListener> listening, std::string expectedToken,
                     std::function<void(const std::string &reason)> onRefused, int greetingTimeMS)
    : listener(std::move(listening)), token(std::move(expectedToken)), refused(std::move(onRefused)),
      patienceMS(greetingTimeMS)
{}

AgentDoor::~AgentDoor() = default;

std::unique_ptr<ByteStream> AgentDoor::Await()
{
    std::unique_ptr<ByteStream> found;
    for (;;) {
        Clear(false);
        {
            const MutexLock held(lock);
            found = std::move(agent);
            if (found || ended)
                break;
        }
        auto stream = listener->Accept(newcomers.empty() ? ByteStream::kNoTimeout : kLookMS);
        if (!stream && newcomers.empty())
            break; // shut down, or of no use any more
        if (!stream)
            continue;
        if (newcomers.size() >= kMostAtOnce) {
            newcomers.front().stream->Shutdown();
            newcomers.front().thread.join();
            newcomers.pop_front();
        }
        Newcomer &newcomer = newcomers.emplace_back();
        newcomer.stream = std::move(stream);
        try {
            newcomer.thread = std::thread([this, &newcomer] { LookAt(&newcomer); });
        } catch (const std::system_error &) {
            newcomers.pop_back(); // short of threads: he may come again
        }
    }
    Clear(true);
    return found;
}

void AgentDoor::Shutdown()
{
    {
        const MutexLock held(lock);
        ended = true;
    }
    listener->Shutdown();
}

void AgentDoor::Clear(bool all)
{
    for (auto newcomer = newcomers.begin(); newcomer != newcomers.end();) {
        bool gone;
        {
            const MutexLock held(lock);
            gone = newcomer->seen;
        }
        if (all && !gone)
            newcomer->stream->Shutdown();
        if (all || gone)
            newcomer->thread.join();
        newcomer = all || gone ? newcomers.erase(newcomer) : std::next(newcomer);
    }
    const MutexLock held(lock);
    if (all)
        agent.reset(); // another good one
}

void AgentDoor::LookAt(Newcomer *newcomer)
{
    std::vector<std::byte> greeting;
    const std::string problem = Judge(newcomer->stream.get(), &greeting);
    if (!problem.empty()) {
        const std::vector<std::byte> words = EncodeFrame(transport::Goodbye{problem});
        const platform::ByteView block = words;
        (void)newcomer->stream->Write({&block, 1});
        newcomer->stream->Shutdown();
        refused(problem);
    }
    const MutexLock held(lock);
    if (problem.empty() && !agent)
        agent = std::make_unique<ReplayedStream>(newcomer->stream, std::move(greeting));
    newcomer->seen = true;
}

std::string AgentDoor::Judge(ByteStream *stream, std::vector<std::byte> *greeting) const
{
    if (token.empty() && !stream->PeerIsThisUser())
        return "another user of this machine has connected: agree on a token with --token-file or FODR_TOKEN";
    const auto end = Clock::now() + std::chrono::milliseconds(patienceMS);
    const char *const notOurs = "what has connected isn't an agent";
    transport::FrameHeader header;
    if (!ReadMore(stream, transport::kFrameHeaderSize, end, greeting))
        return "what has connected doesn't say that it is an agent";
    if (transport::DecodeHeader(greeting->data(), &header) != nullptr ||
        header.type != transport::FrameType::Hello || header.bodySize > kLongestGreeting ||
        !ReadMore(stream, header.bodySize, end, greeting))
        return notOurs;
    transport::Hello hello;
    const auto body = std::span(*greeting).subspan(transport::kFrameHeaderSize);
    if (transport::DecodeBody(body, &hello) != nullptr || hello.role != transport::Role::Agent)
        return notOurs;
    if (!token.empty() && !SameToken(hello.token, token))
        return "the agent doesn't know the agreed token";
    return "";
}

} // namespace fodr::host
