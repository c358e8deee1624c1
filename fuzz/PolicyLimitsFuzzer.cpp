// Policies at the limits: up to 16 MiB of folders and rules, made of few bytes, through a handshake with
// shares. An agent's policy may cost no more than its size, nor end anything.
//
// Input: version and capabilities in a byte each, then groups of entries: how many in 3 bytes, permission, by
// how much the stated length differs, kind of path, a byte of length and that many of path.
#include "FuzzFolder.h"
#include "rdpdr/RdpdrChannelManager.h"
#include "rdpdr/wire/RdpdrStream.h"

#include <atomic>
#include <chrono>

using namespace fodr;
using namespace fodr::fuzz;

namespace {

constexpr size_t kLargest = (16u << 20) - 64;
constexpr auto kLongest = std::chrono::seconds(20); // under the sanitizers

class CountingChannel : public IRdpdrChannel {
public:
    bool NotifyODPObserver(const char *, const char *) override { return true; }
    bool WriteChannel(RdpdrStream *packet) override
    {
        if (packet->Size() < 4)
            std::abort();
        return true;
    }
};

void Append(std::vector<uint8_t> &to, uint32_t number)
{
    to.resize(to.size() + sizeof(number));
    StoreLittle(&to[to.size() - sizeof(number)], number);
}

std::string PathOf(uint8_t kind, std::string rest)
{
    switch (kind % 4) {
    case 0:
        return folder + "/a";
    case 1:
        return folder + "/" + rest;
    case 2:
        return "*all";
    default:
        return rest;
    }
}

std::vector<uint8_t> PolicyOf(const uint8_t *data, size_t size)
{
    std::vector<uint8_t> entries;
    while (size >= 7 && entries.size() < kLargest) {
        const uint32_t count = 1 + (LoadLittle<uint32_t>(data) & 0x3FFFFF);
        const uint8_t permission = data[3];
        const auto wrong = static_cast<uint32_t>(static_cast<int8_t>(data[4]));
        const size_t length = std::min<size_t>(data[6], size - 7);
        const std::string path = PathOf(data[5], std::string(data + 7, data + 7 + length));
        std::vector<uint8_t> entry{permission, 0, 0, 0};
        Append(entry, static_cast<uint32_t>(path.size()) + wrong);
        entry.insert(entry.end(), path.begin(), path.end());
        for (uint32_t i = 0; i < count && entries.size() + entry.size() <= kLargest; ++i)
            entries.insert(entries.end(), entry.begin(), entry.end());
        data += 7 + length;
        size -= 7 + length;
    }
    std::vector<uint8_t> block{1, 0, 5, 0, 0, 0, 0, 0};
    Append(block, static_cast<uint32_t>(entries.size()));
    block.insert(block.end(), entries.begin(), entries.end());
    Append(block, 0);
    std::vector<uint8_t> packet{0xFE, 0xFF, 2, 0};
    Append(packet, static_cast<uint32_t>(block.size()));
    packet.insert(packet.end(), block.begin(), block.end());
    return packet;
}

void Feed(RdpdrChannelManager &manager, std::vector<uint8_t> packet)
{
    RdpdrStream stream(packet.data(), static_cast<int32_t>(packet.size()));
    manager.ProcessData(&stream);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    MakeFolder();
    gLogLevel = LOG_LEVEL_WARN; // a line for each of a million entries is no finding
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    ResetFolder();
    CountingChannel channel;
    RdpdrChannelManager manager;
    manager.Initialize(&channel, nullptr);
    const std::vector<uint8_t> policy = PolicyOf(data + 2, size - 2);
    const auto began = std::chrono::steady_clock::now();
    Feed(manager, {0xFE, 0xFF, 1, 0, static_cast<uint8_t>(data[0] % 8), 0, data[1], 0});
    Feed(manager, policy);
    Feed(manager, kLoggedOn);
    manager.AddSharedFolder(folder + "/b", "1", false, 0, "");
    Feed(manager, policy); // over a table that has shares
    manager.Shutdown();
    if (std::chrono::steady_clock::now() - began > kLongest)
        std::abort();
    return 0;
}
