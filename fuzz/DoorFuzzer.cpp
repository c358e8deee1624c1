// The listener of `fodr share --listen`: strangers that send anything, and an honest agent behind them.
//
// Input: one byte of options (bit 0: no token is agreed), then strangers, each a byte of options (bit 0:
// stays; bit 1: a good greeting goes first), a length in 2 bytes and what it sends. Who is let in has greeted
// as an agent should, and somebody always is.
#include "host/AgentDoor.h"
#include "transport/FrameCodec.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

using namespace fodr;

namespace {

constexpr int kPatienceMS = 100;
constexpr int kLimitMS = 5000;
constexpr char kToken[] = "agreed";
std::string path;

struct Greeting final : transport::IFrameReceiver {
    void OnHello(const transport::Hello &frame) override
    {
        good = frame.role == transport::Role::Agent && (open || frame.token == kToken);
    }
    bool open = false;
    bool good = false;
};

void Send(platform::ByteStream &to, std::span<const std::byte> bytes)
{
    (void)to.Write({&bytes, 1});
}

std::unique_ptr<platform::ByteStream> Come()
{
    std::string problem;
    auto stream = platform::ConnectLocal(path, &problem);
    if (!stream)
        std::abort();
    return stream;
}

void CheckGreeting(platform::ByteStream &agent, bool open)
{
    std::vector<std::byte> bytes(transport::kFrameHeaderSize);
    transport::FrameHeader header;
    for (size_t have = 0; have < bytes.size();) {
        const ptrdiff_t got = agent.Read(std::span(bytes).subspan(have), kLimitMS);
        if (got <= 0)
            std::abort();
        have += static_cast<size_t>(got);
        if (have != transport::kFrameHeaderSize)
            continue;
        if (transport::DecodeHeader(bytes.data(), &header) != nullptr)
            std::abort();
        bytes.resize(have + header.bodySize);
    }
    Greeting greeting;
    greeting.open = open;
    const auto body = std::span(bytes).subspan(transport::kFrameHeaderSize);
    if (transport::DecodeFrame(header.type, body, &greeting) != nullptr || !greeting.good)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    std::string pattern = std::filesystem::temp_directory_path() / "fodr-fuzz-XXXXXX";
    path = std::string(mkdtemp(pattern.data())) + "/door";
    std::atexit([] {
        std::error_code ignored;
        std::filesystem::remove_all(std::filesystem::path(path).parent_path(), ignored);
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const bool open = data[0] & 1;
    std::string problem;
    auto listener = platform::ListenLocal(path, &problem);
    if (!listener)
        std::abort();
    std::atomic<unsigned> refused{0};
    host::AgentDoor door(
        std::move(listener), open ? "" : kToken, [&](const std::string &) { ++refused; }, kPatienceMS);
    std::vector<std::unique_ptr<platform::ByteStream>> strangers;
    const auto hello =
        transport::EncodeFrame(transport::Hello{.role = transport::Role::Agent, .token = kToken});
    // As many as the queue of a listener holds; Await hasn't begun.
    for (++data, --size; size >= 3 && strangers.size() < 60;) {
        const auto options = data[0];
        const auto bytes = std::as_bytes(std::span(data, size));
        const size_t length = std::min<size_t>(LoadLittle<uint16_t>(&bytes[1]), size - 3);
        auto stranger = Come();
        if (options & 2)
            Send(*stranger, hello);
        Send(*stranger, bytes.subspan(3, length));
        data += 3 + length;
        size -= 3 + length;
        if (options & 1)
            strangers.push_back(std::move(stranger));
    }
    const auto honest = Come();
    Send(*honest, hello);
    const auto agent = door.Await();
    if (!agent)
        std::abort();
    CheckGreeting(*agent, open);
    door.Shutdown();
    if (door.Await())
        std::abort();
    return 0;
}
