#include "fileservice/PacketNames.h"

#include "platform/NtRecords.h"
#include "rdpdr/wire/RdpdrStream.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <new>

namespace fodr {

using namespace nt;

namespace {

constexpr char16_t kSeparators[] = u"\\/";

constexpr size_t kNameOffset = offsetof(FILE_RENAME_INFORMATION_EX, FileName);

bool IsOneComponent(std::u16string_view name)
{
    constexpr std::u16string_view kImproper(u"\\/:\0", 4);
    return name != u"." && name != u".." && name.find_first_of(kImproper) == std::u16string_view::npos;
}

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

bool NamesAnotherPlace(uint32_t infoClass)
{
    constexpr uint32_t kOthers[] = {30, 31, 36, 40, 56, 57, 61, 66, 69, 72, 73};
    return std::find(std::begin(kOthers), std::end(kOthers), infoClass) != std::end(kOthers);
}

bool TakesName(uint32_t infoClass)
{
    return infoClass == FileRenameInformation || infoClass == FileRenameInformationEx ||
           infoClass == FileLinkInformation || infoClass == FileDispositionInformation ||
           infoClass == FileDispositionInformationEx;
}

bool CarriesHandle(uint32_t code)
{
    constexpr uint32_t kCodes[] = {0x90074, 0x900FC, 0x98344, 0x983E8};
    return std::find(std::begin(kCodes), std::end(kCodes), code) != std::end(kCodes);
}

NTSTATUS ReadNewName(uint32_t infoClass, uint8_t *buffer, uint32_t *length, uint32_t *directoryId)
{
    static_assert(sizeof(FILE_LINK_INFORMATION) == sizeof(FILE_RENAME_INFORMATION_EX) &&
                  offsetof(FILE_LINK_INFORMATION, FileName) == kNameOffset);
    if (*length < kNameOffset)
        return STATUS_INFO_LENGTH_MISMATCH;
    FILE_RENAME_INFORMATION_EX record{};
    memcpy(&record, buffer, kNameOffset);
    if (record.FileNameLength == 0 || record.FileNameLength % sizeof(char16_t) != 0 ||
        record.FileNameLength > *length - kNameOffset || record.RootDirectory == 0 ||
        record.RootDirectory > UINT32_MAX)
        return STATUS_INVALID_PARAMETER;
    std::u16string name(record.FileNameLength / sizeof(char16_t), u'\0');
    memcpy(name.data(), buffer + kNameOffset, record.FileNameLength);
    if (!IsOneComponent(name))
        return STATUS_OBJECT_NAME_INVALID;
    if (infoClass == FileLinkInformation && buffer[0] != 0) // a link replaces nothing
        return STATUS_INVALID_PARAMETER;
    constexpr uint32_t kFlags = FILE_RENAME_REPLACE_IF_EXISTS | FILE_RENAME_POSIX_SEMANTICS |
                                FILE_RENAME_IGNORE_READONLY_ATTRIBUTE | FODR_RENAME_EXCHANGE;
    const uint64_t flags =
        infoClass == FileLinkInformation ? 0 : record.Flags & kFlags; // and the padding behind them
    memcpy(buffer, &flags, sizeof(flags));
    *directoryId = static_cast<uint32_t>(record.RootDirectory);
    // Systems want the whole record, also for a name of one unit.
    *length = std::max<uint32_t>(kNameOffset + record.FileNameLength, sizeof(FILE_RENAME_INFORMATION_EX));
    return STATUS_SUCCESS;
}

} // namespace fodr
