// The server of the control socket: several visitors that say anything, at once, and an honest one behind
// them.
//
// Input: visitors, each a byte of options (bit 0: stays until the end; bit 1: what follows is a request, to
// be encoded; bit 2: goes without taking the reply), a length in 2 bytes and what it sends. The same bytes
// are read as a server's reply as well.
#include "host/ControlServer.h"
#include "transport/FrameCodec.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

using namespace fodr;
using namespace fodr::host;

namespace {

constexpr int kLimitMS = 5000;
std::string path;

ControlReply Echo(const Words &request)
{
    return {.code = 0, .sentence = std::to_string(request.size()), .rows = {request}};
}

void Send(platform::ByteStream &to, std::string_view text)
{
    const platform::ByteView block = std::as_bytes(std::span(text));
    (void)to.Write({&block, 1});
}

void ReadAsReply(std::string_view text)
{
    auto [mine, theirs] = platform::MakeStreamPair();
    Send(*theirs, text);
    theirs->Shutdown();
    (void)ReceiveReply(mine.get(), kLimitMS);
    if (const auto words = DecodeWords(text); words && DecodeWords(EncodeWords(*words)) != words)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    std::string pattern = std::filesystem::temp_directory_path() / "fodr-fuzz-XXXXXX";
    path = std::string(mkdtemp(pattern.data())) + "/control";
    std::atexit([] {
        std::error_code ignored;
        std::filesystem::remove_all(std::filesystem::path(path).parent_path(), ignored);
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string problem;
    const auto server = ControlServer::Start(path, Echo, &problem);
    if (!server)
        std::abort();
    std::vector<std::unique_ptr<platform::ByteStream>> visitors;
    // Fewer than the limit: those who have gone may count for a moment longer.
    for (size_t came = 0; size >= 3 && came < ControlServer::kMaxVisitors / 2; ++came) {
        const uint8_t options = data[0];
        const size_t length =
            std::min<size_t>(LoadLittle<uint16_t>(reinterpret_cast<const std::byte *>(data + 1)), size - 3);
        const std::string text(data + 3, data + 3 + length);
        data += 3 + length;
        size -= 3 + length;
        ReadAsReply(text);
        auto visitor = platform::ConnectLocal(path, &problem);
        if (!visitor)
            std::abort();
        Send(*visitor, options & 2 ? EncodeWords({text}) + "\n" : text);
        if (options & 2 && !(options & 4)) {
            const auto reply = ReceiveReply(visitor.get(), kLimitMS);
            if (visitors.empty() && (!reply || reply->rows != std::vector<Words>{{text}}))
                std::abort();
        }
        if (options & 1)
            visitors.push_back(std::move(visitor));
    }
    const auto honest = platform::ConnectLocal(path, &problem);
    if (!honest || !SendRequest(honest.get(), {"status"}))
        std::abort();
    const auto reply = ReceiveReply(honest.get(), kLimitMS);
    if (!reply || reply->sentence != "1")
        std::abort();
    return 0;
}
