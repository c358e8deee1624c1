#include "fileservice/PacketText.h"

#include "rdpdr/wire/RdpdrStream.h"

#include <algorithm>
#include <bit>
#include <new>

namespace fodr {

namespace {

constexpr char16_t kSeparators[] = u"\\/";

} // namespace

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

bool HasNoDotComponents(std::u16string_view relativePath)
{
    while (!relativePath.empty()) {
        const size_t end = std::min(relativePath.find_first_of(kSeparators), relativePath.size());
        const std::u16string_view component = relativePath.substr(0, end);
        if (component == u"." || component == u"..")
            return false;
        relativePath.remove_prefix(std::min(end + 1, relativePath.size()));
    }
    return true;
}

bool NamesRoot(std::u16string_view relativePath)
{
    constexpr std::u16string_view kIndex = u":$INDEX_ALLOCATION";
    const size_t name = relativePath.find_first_not_of(kSeparators);
    if (name == std::u16string_view::npos)
        return true;
    relativePath.remove_prefix(name);
    while (relativePath.ends_with(u'\\') || relativePath.ends_with(u'/'))
        relativePath.remove_suffix(1);
    if (relativePath[0] != u':' || relativePath.size() < kIndex.size())
        return false;
    const std::u16string_view type = relativePath.substr(relativePath.size() - kIndex.size());
    return std::equal(type.begin(), type.end(), kIndex.begin(), [](char16_t a, char16_t b) {
        return (a >= u'a' && a <= u'z' ? a - u'a' + u'A' : a) == b;
    });
}

} // namespace fodr
