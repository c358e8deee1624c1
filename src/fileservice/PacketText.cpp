#include "fileservice/PacketText.h"

#include "rdpdr/wire/RdpdrStream.h"

#include <algorithm>
#include <bit>
#include <new>

namespace fodr {

bool ReadPacketText(RdpdrStream &packet, uint32_t byteLength, const std::u16string &prefix,
                    std::u16string &text)
{
    static_assert(std::endian::native == std::endian::little, "units are taken as they come");
    size_t present = std::min<size_t>(byteLength, packet.Remaining());
    try {
        text.reserve(prefix.size() + present / 2 + 2);
        text = prefix;
        text.resize(prefix.size() + (present + 1) / 2);
    } catch (const std::bad_alloc &) {
        return false;
    }
    packet.Read(text.data() + prefix.size(), present);
    size_t end = text.find(u'\0', prefix.size());
    if (end != std::u16string::npos)
        text.resize(end);
    return true;
}

bool BeginsBelowRoot(std::u16string_view relativePath)
{
    return relativePath.empty() || relativePath[0] == u'\\' || relativePath[0] == u'/';
}

} // namespace fodr
