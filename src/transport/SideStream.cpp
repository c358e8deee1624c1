#include "transport/SideStream.h"

#include "transport/FrameCodec.h"

#include <algorithm>

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

} // namespace fodr::transport
