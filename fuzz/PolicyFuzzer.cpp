// The readers of the agent's policy: a block with any length, read in the form of any version, over another.
//
// Input: version, then two lengths of 4 bytes (one block's share of the rest, and what it says to be).
#include "rdpdr/ClientPolicy.h"
#include "rdpdr/wire/WireLayout.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

using namespace fodr;

namespace {

// On the heap and of its exact size.
void Parse(ClientPolicy &policy, const uint8_t *data, size_t size, uint32_t length, int32_t version)
{
    std::vector<uint8_t> block(data, data + size);
    bool taken = policy.ParsePolicy(block.data(), block.size(), length, version);
    if (taken != (length >= FodrPolicy::kHeaderLength))
        std::abort();
    // An entry takes eight bytes at least: more of them than fit would be made of what isn't there.
    if (taken && version != 0 && policy.Folders().size() > size / 8)
        std::abort();
    for (const ClientPolicy::Folder &folder : policy.Folders())
        policy.IsFolderInPolicy(folder.path);
    policy.IsFolderInPolicy("C:\\Users\\abc");
    policy.IsFolderInPolicy("/srv/data/x");
    policy.IsAllowedByDeviceFilter("<vidpid>07815567");
    if (!policy.IsAllowedByDeviceFilter(""))
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    constexpr size_t kPreamble = 9;
    if (size < kPreamble)
        return 0;
    int32_t version = data[0] % 8;
    size_t first = std::min<size_t>(LoadLittle<uint32_t>(data + 1), size - kPreamble);
    uint32_t length = LoadLittle<uint32_t>(data + 5);
    data += kPreamble;
    size -= kPreamble;

    ClientPolicy policy;
    Parse(policy, data, first, length, version);
    Parse(policy, data + first, size - first, static_cast<uint32_t>(size - first), version);
    FodrPolicy header;
    header.ParsePolicy(data, size);
    return 0;
}
