#include "ntposix/DosAttributes.h"

#include "ntposix/Link.h"
#include "platform/Nt.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/xattr.h>

namespace fodr::ntposix {

namespace {

static_assert(kDosAttributes == (nt::FILE_ATTRIBUTE_HIDDEN | nt::FILE_ATTRIBUTE_SYSTEM));

constexpr const char *kName = "user.DOSATTRIB";
constexpr size_t kLongest = 256;

// An empty text, then a record. Its versions 3 and 4 have the attributes at one place. Older tools kept the
// attributes as a text, "0x22".
struct Record {
    uint8_t Text[2];
    uint16_t Version;
    uint16_t Level;
    uint16_t Padding;
    uint32_t Fields; // which of the others count
    uint32_t Attributes;
    uint64_t CreationTime; // of version 3
};
static_assert(sizeof(Record) == 24 && offsetof(Record, Fields) == 8 && offsetof(Record, Attributes) == 12);

constexpr uint16_t kVersion = 3;
constexpr uint32_t kHasAttributes = 0x1;
constexpr uint32_t kHasCreationTime = 0x10;

struct Kept {
    std::array<char, kLongest + 1> bytes{}; // with a zero behind them
    size_t size = 0;
    bool isRecord = false;
    uint32_t attributes = 0;
};

// False when there is none, or none that is understood.
bool Read(const std::string &path, Kept *kept)
{
    const ssize_t size = getxattr(path.c_str(), kName, kept->bytes.data(), kLongest);
    if (size <= 0)
        return false;
    kept->size = static_cast<size_t>(size);
    if (kept->bytes[0] == '0') {
        kept->attributes = static_cast<uint32_t>(strtoul(kept->bytes.data(), nullptr, 16));
        return true;
    }
    Record record{};
    memcpy(&record, kept->bytes.data(), std::min(kept->size, sizeof(record)));
    kept->isRecord = record.Text[0] == 0 && (record.Version == kVersion || record.Version == kVersion + 1) &&
                     kept->size >= offsetof(Record, CreationTime) && (record.Fields & kHasAttributes) != 0;
    kept->attributes = kept->isRecord ? record.Attributes : 0;
    return kept->isRecord;
}

} // namespace

uint32_t ReadDosAttributes(int fd)
{
    Kept kept;
    return Read(DescriptorPath(fd), &kept) ? kept.attributes & kDosAttributes : 0;
}

int WriteDosAttributes(int fd, const FileFacts &facts, uint32_t attributes)
{
    const std::string path = DescriptorPath(fd);
    Kept kept;
    const bool any = Read(path, &kept);
    if ((kept.attributes & kDosAttributes) == (attributes & kDosAttributes))
        return 0;
    if (kept.isRecord) {
        const uint32_t wanted = (kept.attributes & ~kDosAttributes) | (attributes & kDosAttributes);
        memcpy(kept.bytes.data() + offsetof(Record, Attributes), &wanted, sizeof(wanted));
    } else {
        const uint32_t others = any ? kept.attributes & ~kDosAttributes : facts.attributes;
        const Record record = {.Text = {},
                               .Version = kVersion,
                               .Level = kVersion,
                               .Padding = 0,
                               .Fields = kHasAttributes | kHasCreationTime,
                               .Attributes = others | (attributes & kDosAttributes),
                               .CreationTime = static_cast<uint64_t>(facts.creationTime)};
        kept.size = sizeof(record);
        memcpy(kept.bytes.data(), &record, sizeof(record));
    }
    if (setxattr(path.c_str(), kName, kept.bytes.data(), kept.size, 0) == 0 || errno == ENOTSUP)
        return 0;
    return errno;
}

} // namespace fodr::ntposix
