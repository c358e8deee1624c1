#include "transport/FrameConnection.h"

#include "transport/FrameCodec.h"

#include <algorithm>
#include <chrono>

namespace fodr::transport {
namespace {

// Reads exactly the expected bytes: the connection that follows must not miss any.
bool ReadExactly(platform::ByteStream *stream, std::span<const std::byte> expected, int timeoutMS)
{
    std::array<std::byte, 64> buffer;
    while (!expected.empty()) {
        const ptrdiff_t got =
            stream->Read({buffer.data(), std::min(buffer.size(), expected.size())}, timeoutMS);
        if (got <= 0 || !std::equal(buffer.begin(), buffer.begin() + got, expected.begin()))
            return false;
        expected = expected.subspan(static_cast<size_t>(got));
    }
    return true;
}

} // namespace

std::unique_ptr<platform::ByteStream> OpenSideStream(const std::string &host, const SideOffer &offer,
                                                     int timeoutMS, std::string *error)
{
    auto stream = platform::ConnectTcp(host, offer.port, timeoutMS, error);
    if (!stream)
        return nullptr;
    SideHello hello;
    hello.object = offer.object;
    hello.secret = offer.secret;
    const std::vector<std::byte> words = EncodeFrame(hello);
    const std::vector<std::byte> answer = EncodeFrame(SideReady{offer.object});
    const platform::ByteView block = words;
    if (stream->Write({&block, 1}) && ReadExactly(stream.get(), answer, timeoutMS))
        return stream;
    *error = "the agent doesn't answer on it";
    return nullptr;
}

namespace {

// A frame up to this size joins the next write when the stream is busy; copying it is cheaper than waiting.
constexpr size_t kJoinedFrame = 16 << 10;
constexpr size_t kJoinedTotal = 1 << 20;
// What a receiver may queue from its calls before the peer counts as one that doesn't read.
constexpr size_t kQueueLimit = 2 * kMaxFrameBody;
constexpr uint32_t kLongestWaitMS = 3600 * 1000;
constexpr size_t kPongLimit = 64 << 10; // with so much queued the peer sees signs of life anyway

size_t TotalSize(std::span<const platform::ByteView> blocks)
{
    size_t size = 0;
    for (const platform::ByteView block : blocks)
        size += block.size();
    return size;
}

} // namespace

FrameConnection::FrameConnection(std::unique_ptr<platform::ByteStream> byteStream,
                                 IConnectionReceiver *target)
    : stream(std::move(byteStream)), receiver(target)
{}

FrameConnection::~FrameConnection()
{
    Stop();
}

void FrameConnection::Stop()
{
    Close("closed on this side");
    if (reader.joinable())
        reader.join();
    if (flusher.joinable())
        flusher.join();
}

void FrameConnection::Start()
{
    flusher = std::thread([this] { FlusherMain(); });
    reader = std::thread([this] { ReaderMain(); });
}

void FrameConnection::SetKeepAlive(const KeepAlive &times)
{
    pingAfterMS = times.pingAfterMS;
    deadAfterMS = times.deadAfterMS;
}

void FrameConnection::SetWriteTimeout(int timeoutMS)
{
    stream->SetWriteTimeout(timeoutMS);
}

// ---- Sending ----

bool FrameConnection::Send(const Message &frame)
{
    const MessageBlocks message(frame);
    return !message.Blocks().empty() && SendBlocks(message.Blocks());
}

bool FrameConnection::SendPost(uint32_t object, uint32_t requestId, platform::ByteView block,
                               platform::ByteView tail)
{
    Message frame;
    frame.object = object;
    frame.requestId = requestId;
    frame.flags = Message::kPost;
    frame.parameterCount = 1;
    frame.parameters[0] = {.isBlock = true, .block = block, .tail = tail};
    return Send(frame);
}

bool FrameConnection::SendBytes(const std::vector<std::byte> &frame)
{
    const platform::ByteView block = frame;
    return !frame.empty() && SendBlocks({&block, 1});
}

bool FrameConnection::Queue(const Goodbye &frame)
{
    const std::vector<std::byte> bytes = EncodeFrame(frame);
    const platform::ByteView block = bytes;
    return QueueBlocks({&block, 1}, block.size());
}

// All but the first `written` bytes.
void FrameConnection::AppendPending(std::span<const platform::ByteView> blocks, size_t written)
{
    for (const platform::ByteView block : blocks) {
        const size_t skipped = std::min(written, block.size());
        pending.insert(pending.end(), block.begin() + static_cast<ptrdiff_t>(skipped), block.end());
        written -= skipped;
    }
}

bool FrameConnection::SendBlocks(std::span<const platform::ByteView> blocks)
{
    const size_t size = TotalSize(blocks);
    if (readerId.load() == std::this_thread::get_id())
        return QueueBlocks(blocks, size);
    const MutexLock lock(sendLock);
    if (writing || waitingWriters != 0) {
        if (closed)
            return false;
        if (size <= kJoinedFrame && pending.size() <= kJoinedTotal) {
            AppendPending(blocks, 0);
            return true;
        }
        ++waitingWriters;
        while (writing && !closed)
            turnChanged.wait(sendLock);
        --waitingWriters;
    }
    return !closed && WriteInTurn(blocks);
}

// Written as far as that needs no waiting; the rest by the turn's holder or the flusher, so that the caller
// goes on.
bool FrameConnection::QueueBlocks(std::span<const platform::ByteView> blocks, size_t size)
{
    bool tooMuch = false;
    {
        const MutexLock lock(sendLock);
        if (closed)
            return false;
        const bool isFree = !writing && waitingWriters == 0 && pending.empty();
        const size_t written = isFree ? stream->TryWrite(blocks) : 0;
        tooMuch = size - written > kQueueLimit - std::min(pending.size(), kQueueLimit);
        if (!tooMuch)
            AppendPending(blocks, written);
        if (!writing && !pending.empty())
            flusherWakeup.notify_one();
    }
    if (tooMuch)
        Close("the peer sends and doesn't read");
    return !tooMuch;
}

// Writes what is pending, then `blocks`, then what has gathered meanwhile unless another waits for its turn.
bool FrameConnection::WriteInTurn(std::span<const platform::ByteView> blocks)
{
    std::array<platform::ByteView, 3 * kMaxParameters + 2> all;
    bool good = true;
    writing = true;
    do {
        inWrite.clear();
        inWrite.swap(pending);
        size_t count = 0;
        if (!inWrite.empty())
            all[count++] = inWrite;
        for (const platform::ByteView block : blocks)
            all[count++] = block;
        blocks = {};
        sendLock.unlock();
        good = stream->Write({all.data(), count});
        sendLock.lock();
    } while (good && !pending.empty() && waitingWriters == 0 && !closed);
    writing = false;
    turnChanged.notify_all();
    if (!good) {
        sendLock.unlock();
        Close(stream->WriteTimedOut() ? "the peer doesn't take what is sent"
                                      : "the connection broke while writing");
        sendLock.lock();
    }
    return good;
}

void FrameConnection::FlusherMain()
{
    const MutexLock lock(sendLock);
    while (!closed) {
        if (pending.empty() || writing || waitingWriters != 0)
            flusherWakeup.wait(sendLock);
        else
            WriteInTurn({});
    }
}

bool FrameConnection::Flush(int timeoutMS)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMS);
    const MutexLock lock(sendLock);
    while ((writing || !pending.empty()) && !closed) {
        if (turnChanged.wait_until(sendLock, end) == std::cv_status::timeout)
            break;
    }
    return !writing && pending.empty();
}

void FrameConnection::Close(const std::string &reason)
{
    {
        const MutexLock lock(sendLock);
        if (closeReason.empty())
            closeReason = reason;
        closed = true;
        turnChanged.notify_all();
        flusherWakeup.notify_all();
    }
    stream->Shutdown();
}

// ---- Receiving ----

void FrameConnection::ReaderMain()
{
    readerId = std::this_thread::get_id();
    Close(ReadUntilEnd());
    std::string reason;
    {
        const MutexLock lock(sendLock);
        reason = closeReason;
    }
    receiver->OnClosed(reason);
}

std::string FrameConnection::ReadUntilEnd()
{
    FrameBuffer buffer;
    std::string reason;
    while (!closed) {
        const ptrdiff_t got = ReadOrPing(buffer.Room());
        if (got == platform::ByteStream::kEnd)
            return "the peer closed the connection";
        if (got == platform::ByteStream::kTimedOut)
            return "the peer doesn't answer";
        if (got < 0)
            return "the connection broke while reading";
        buffer.Added(static_cast<size_t>(got));
        if (!DrainFrames(&buffer, &reason))
            return reason;
    }
    return "closed on this side";
}

// Waits for bytes. Only silence while we wait counts against the peer; the time that a receiver takes
// doesn't.
ptrdiff_t FrameConnection::ReadOrPing(std::span<std::byte> room)
{
    uint32_t silentMS = 0;
    for (;;) {
        const uint32_t ping = pingAfterMS;
        const uint32_t dead = deadAfterMS;
        const bool watched = ping != 0 && dead != 0;
        const uint32_t wait = std::min({ping, dead - std::min(silentMS, dead), kLongestWaitMS});
        if (watched && silentMS >= dead)
            return platform::ByteStream::kTimedOut;
        const ptrdiff_t got =
            stream->Read(room, watched ? static_cast<int>(wait) : platform::ByteStream::kNoTimeout);
        if (got != platform::ByteStream::kTimedOut)
            return got;
        silentMS += wait;
        Send(Ping{});
    }
}

bool FrameConnection::DrainFrames(FrameBuffer *buffer, std::string *reason)
{
    FrameHeader header;
    platform::ByteView body;
    const char *fault = nullptr;
    while (!closed) {
        switch (buffer->Next(&header, &body, &fault)) {
        case FrameBuffer::Outcome::NeedMore:
            return true;
        case FrameBuffer::Outcome::Bad:
            break;
        case FrameBuffer::Outcome::Frame:
            fault = DecodeFrame(header.type, body, receiver);
            break;
        }
        if (fault != nullptr) {
            *reason = std::string("the peer broke the protocol: ") + fault;
            return false;
        }
        if (header.type == FrameType::Ping) {
            bool busy;
            {
                const MutexLock lock(sendLock);
                busy = pending.size() > kPongLimit;
            }
            if (!busy)
                Send(Pong{});
        }
    }
    *reason = "closed on this side";
    return false;
}

} // namespace fodr::transport
