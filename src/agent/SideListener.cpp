#include "agent/SideListener.h"

#include "transport/FrameCodec.h"

#include <chrono>
#include <random>

namespace fodr::agent {
namespace {

constexpr auto kOfferStands = std::chrono::seconds(30);
constexpr auto kHelloTime = std::chrono::seconds(5); // for a peer to show the secret

using Clock = std::chrono::steady_clock;

int MillisecondsUntil(Clock::time_point end)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

transport::Secret MakeSecret()
{
    std::random_device entropy;
    transport::Secret secret;
    for (std::byte &byte : secret)
        byte = static_cast<std::byte>(entropy());
    return secret;
}

// The same time whatever is wrong.
bool SecretsEqual(const transport::Secret &first, const transport::Secret &second)
{
    auto difference = std::byte{0};
    for (size_t i = 0; i < first.size(); ++i)
        difference |= first[i] ^ second[i];
    return difference == std::byte{0};
}

// Exactly as many bytes, so that what follows stays in the stream.
bool ReadExactly(platform::ByteStream *stream, std::span<std::byte> bytes, Clock::time_point end)
{
    while (!bytes.empty()) {
        const ptrdiff_t got = stream->Read(bytes, MillisecondsUntil(end));
        if (got <= 0)
            return false;
        bytes = bytes.subspan(static_cast<size_t>(got));
    }
    return true;
}

} // namespace

bool SideListener::Start(const std::string &address, uint32_t object, Arrival arrival,
                         transport::SideOffer *offer, std::string *error)
{
    if (thread.joinable()) {
        *error = "a side channel was offered already";
        return false;
    }
    listener = platform::ListenTcp(address, 0, error);
    if (!listener)
        return false;
    secret = MakeSecret();
    onArrival = std::move(arrival);
    *offer = {.object = object, .port = listener->Port(), .secret = secret};
    thread = std::thread([this, object] { ThreadMain(object); });
    return true;
}

void SideListener::Cancel()
{
    stopping = true;
    if (listener)
        listener->Shutdown();
}

void SideListener::Stop()
{
    Cancel();
    if (thread.joinable())
        thread.join();
}

void SideListener::ThreadMain(uint32_t object)
{
    const Clock::time_point end = Clock::now() + kOfferStands;
    std::unique_ptr<platform::ByteStream> stream;
    while (!stopping) {
        stream = listener->Accept(MillisecondsUntil(end));
        if (!stream || ShowsSecret(stream.get(), object))
            break;
        stream.reset();
    }
    listener->Shutdown();
    onArrival(std::move(stream));
}

bool SideListener::ShowsSecret(platform::ByteStream *stream, uint32_t object)
{
    static const size_t helloSize = transport::EncodeFrame(transport::SideHello{}).size();
    std::vector<std::byte> bytes(helloSize);
    if (!ReadExactly(stream, bytes, Clock::now() + kHelloTime))
        return false;
    transport::FrameHeader header;
    transport::SideHello hello;
    const platform::ByteView body = platform::ByteView(bytes).subspan(transport::kFrameHeaderSize);
    if (transport::DecodeHeader(bytes.data(), &header) != nullptr || header.bodySize != body.size() ||
        header.type != transport::FrameType::SideHello || transport::DecodeBody(body, &hello) != nullptr)
        return false;
    return hello.version == transport::kVersion && hello.object == object &&
           SecretsEqual(hello.secret, secret);
}

} // namespace fodr::agent
