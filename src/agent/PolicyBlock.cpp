#include "agent/PolicyBlock.h"

#include "rdpdr/wire/RdpdrRecords.h"

#include <string_view>

namespace fodr::agent {
namespace {

class BlockWriter {
public:
    std::vector<uint8_t> bytes;

    void Byte(uint8_t value) { bytes.push_back(value); }
    void Zeros(size_t count) { bytes.insert(bytes.end(), count, 0); }
    void Number(uint32_t value)
    {
        Zeros(sizeof(value));
        StoreLittle(bytes.data() + bytes.size() - sizeof(value), value);
    }
    void Counted(std::string_view text)
    {
        Number(static_cast<uint32_t>(text.size()));
        bytes.insert(bytes.end(), text.begin(), text.end());
    }
    // Room for a length that CloseLength fills with the count of what was written since.
    size_t OpenLength()
    {
        Number(0);
        return bytes.size();
    }
    void CloseLength(size_t opened)
    {
        StoreLittle(bytes.data() + opened - sizeof(uint32_t), static_cast<uint32_t>(bytes.size() - opened));
    }
};

} // namespace

std::vector<uint8_t> MakePolicyPacket(const PolicyOptions &options, uint16_t version)
{
    const bool counted = version >= FODR_VERSION_FOLDER_BLOCK_LENGTH;
    BlockWriter block;
    block.Zeros(kWireEnd<FODR_POLICY>);
    const size_t policy = block.bytes.size();
    block.Byte(options.enabled);
    block.Byte(options.sharedByAgent);
    block.Byte(options.defaultPermission);
    block.Zeros(5);
    const size_t folders = counted ? block.OpenLength() : 0;
    for (const PolicyFolder &folder : options.folders) {
        block.Byte(folder.permission);
        block.Zeros(3);
        block.Counted(folder.path);
    }
    if (counted) {
        block.CloseLength(folders);
        const size_t filter = block.OpenLength();
        if (!options.excludeRule.empty() || !options.includeRule.empty()) {
            block.Counted(options.excludeRule);
            block.Counted(options.includeRule);
        }
        block.CloseLength(filter);
    }
    const auto length = static_cast<uint32_t>(block.bytes.size() - policy);
    StorePacket(FODR_POLICY{.PolicyLength = length}, block.bytes.data());
    return std::move(block.bytes);
}

} // namespace fodr::agent
