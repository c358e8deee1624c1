#include "agent/FileFacts.h"

#include "lib/unicode/NameMapping.h"
#include "platform/Nt.h"
#include "platform/NtRecords.h"
#include "rdpdr/wire/RdpdrConstants.h"
#include "rdpdr/wire/RdpdrRecords.h"

#include <cstring>

namespace fodr::agent {
namespace {

// Sizes on the wire: without the padding at the end.
constexpr size_t kBasicSize = offsetof(nt::FILE_BASIC_INFORMATION, FileAttributes) + 4;
constexpr size_t kStandardSize = offsetof(nt::FILE_STANDARD_INFORMATION, Directory) + 1;
constexpr size_t kNetworkOpenSize = offsetof(nt::FILE_NETWORK_OPEN_INFORMATION, FileAttributes) + 4;
constexpr size_t kEntrySize = offsetof(nt::FILE_FULL_DIR_INFORMATION, FileName);
constexpr size_t kEntryWithIdSize = offsetof(nt::FILE_BOTH_DIR_INFORMATION, FileName);
constexpr size_t kIds = offsetof(nt::FILE_BOTH_DIR_INFORMATION, ShortName);
static_assert(kBasicSize == 36 && kStandardSize == 22 && kNetworkOpenSize == 52 && kEntrySize == 68);
static_assert(kEntryWithIdSize == 94 && kIds == 70);
static_assert(offsetof(nt::FILE_BOTH_DIR_INFORMATION, EaSize) ==
              offsetof(nt::FILE_FULL_DIR_INFORMATION, EaSize));

// Of a record that begins with the layout of `Record`; at least `count` bytes are there.
template <class Record> Record Load(ByteSpan bytes, size_t count)
{
    Record record{};
    memcpy(&record, bytes.data(), count);
    return record;
}

void TakeBasic(const nt::FILE_BASIC_INFORMATION &basic, FileFacts *facts)
{
    facts->creationTime = basic.CreationTime;
    facts->lastAccessTime = basic.LastAccessTime;
    facts->lastWriteTime = basic.LastWriteTime;
    facts->changeTime = basic.ChangeTime;
    facts->attributes = basic.FileAttributes;
}

} // namespace

bool FileFacts::IsDirectory() const
{
    return (attributes & nt::FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool FileFacts::IsReadOnly() const
{
    return (attributes & nt::FILE_ATTRIBUTE_READONLY) != 0;
}

bool FileFacts::IsSymbolicLink() const
{
    return (attributes & nt::FILE_ATTRIBUTE_REPARSE_POINT) != 0 && reparseTag == nt::IO_REPARSE_TAG_SYMLINK;
}

void FileFacts::TakeIdentity(const FileFacts &other)
{
    id = other.id;
    mode = other.mode;
    links = other.links;
    owner = other.owner;
    group = other.group;
    reparseTag = other.reparseTag;
}

void FileFacts::DropId()
{
    id = 0;
    if (IsSymbolicLink())
        mode = 0;
}

bool FileFacts::SameContent(const FileFacts &other) const
{
    return lastWriteTime == other.lastWriteTime && changeTime == other.changeTime &&
           endOfFile == other.endOfFile;
}

bool ReadNetworkOpenInformation(ByteSpan record, FileFacts *facts)
{
    if (record.size() < kNetworkOpenSize)
        return false;
    const auto info = Load<nt::FILE_NETWORK_OPEN_INFORMATION>(record, kNetworkOpenSize);
    *facts = {.creationTime = info.CreationTime,
              .lastAccessTime = info.LastAccessTime,
              .lastWriteTime = info.LastWriteTime,
              .changeTime = info.ChangeTime,
              .endOfFile = info.EndOfFile,
              .allocationSize = info.AllocationSize,
              .attributes = info.FileAttributes};
    return true;
}

bool ReadStatInformation(ByteSpan record, FileFacts *facts)
{
    if (record.size() < sizeof(nt::FILE_STAT_LX_INFORMATION))
        return false;
    const auto whole = Load<nt::FILE_STAT_LX_INFORMATION>(record, sizeof(nt::FILE_STAT_LX_INFORMATION));
    const nt::FILE_STAT_INFORMATION &info = whole.Stat;
    *facts = {.creationTime = info.CreationTime,
              .lastAccessTime = info.LastAccessTime,
              .lastWriteTime = info.LastWriteTime,
              .changeTime = info.ChangeTime,
              .endOfFile = info.EndOfFile,
              .allocationSize = info.AllocationSize,
              .attributes = info.FileAttributes,
              .reparseTag = info.ReparseTag,
              .id = static_cast<uint64_t>(info.FileId),
              .mode = whole.LxMode,
              .links = info.NumberOfLinks,
              .owner = whole.LxUid,
              .group = whole.LxGid};
    return true;
}

namespace {

std::u16string LoadText(ByteSpan bytes)
{
    std::u16string text(bytes.size() / 2, u'\0');
    for (size_t i = 0; i < text.size(); ++i)
        text[i] = static_cast<char16_t>(LoadLittle<uint16_t>(&bytes[2 * i]));
    return text;
}

} // namespace

bool ReadNameInformation(ByteSpan record, std::u16string *path)
{
    constexpr size_t kName = offsetof(nt::FILE_NAME_INFORMATION, FileName);
    if (record.size() < kName)
        return false;
    const auto length = LoadLittle<uint32_t>(record.data());
    if (length > record.size() - kName)
        return false;
    *path = LoadText(record.subspan(kName, length));
    return true;
}

// Each name is ":NAME:TYPE".
bool ReadStreamNames(ByteSpan record, std::vector<std::u16string> *names)
{
    constexpr size_t kName = offsetof(nt::FILE_STREAM_INFORMATION, StreamName);
    for (size_t next = 1; next != 0 && record.size() > 1; record = record.subspan(next)) {
        if (record.size() < kName)
            return false;
        next = LoadLittle<uint32_t>(record.data());
        const auto length =
            LoadLittle<uint32_t>(&record[offsetof(nt::FILE_STREAM_INFORMATION, StreamNameLength)]);
        if (length > record.size() - kName || next > record.size())
            return false;
        const std::u16string text = LoadText(record.subspan(kName, length));
        const size_t end = text.rfind(u':');
        if (text.empty() || text[0] != u':' || end == 0)
            return false;
        if (end > 1)
            names->push_back(text.substr(1, end - 1));
    }
    return true;
}

// MS-FSCC 2.1.2.4. The printed name is the target; the other one has a prefix for absolute paths.
bool ReadLinkTarget(ByteSpan record, std::string *target)
{
    if (record.size() < sizeof(nt::SYMBOLIC_LINK_REPARSE_DATA))
        return false;
    const auto head = Load<nt::SYMBOLIC_LINK_REPARSE_DATA>(record, sizeof(nt::SYMBOLIC_LINK_REPARSE_DATA));
    const ByteSpan names = record.subspan(sizeof(nt::SYMBOLIC_LINK_REPARSE_DATA));
    if (head.ReparseTag != nt::IO_REPARSE_TAG_SYMLINK || head.PrintNameOffset > names.size() ||
        head.PrintNameLength > names.size() - head.PrintNameOffset)
        return false;
    const std::u16string text = LoadText(names.subspan(head.PrintNameOffset, head.PrintNameLength));
    target->clear();
    return PosixPathFromNt(text, *target) && !target->empty() && target->find('\0') == std::string::npos;
}

bool ReadFullSizeInformation(ByteSpan record, VolumeFacts *facts)
{
    if (record.size() < sizeof(nt::FILE_FS_FULL_SIZE_INFORMATION))
        return false;
    const auto info =
        Load<nt::FILE_FS_FULL_SIZE_INFORMATION>(record, sizeof(nt::FILE_FS_FULL_SIZE_INFORMATION));
    facts->totalUnits = static_cast<uint64_t>(info.TotalAllocationUnits);
    facts->callerFreeUnits = static_cast<uint64_t>(info.CallerAvailableAllocationUnits);
    facts->freeUnits = static_cast<uint64_t>(info.ActualAvailableAllocationUnits);
    facts->bytesPerUnit = uint64_t{info.SectorsPerAllocationUnit} * info.BytesPerSector;
    return true;
}

void DirectoryReader::Entry::CopyName(std::u16string *to) const
{
    to->resize(name.size() / 2);
    for (size_t i = 0; i < to->size(); ++i)
        (*to)[i] = static_cast<char16_t>(LoadLittle<uint16_t>(&name[2 * i]));
}

bool DirectoryReader::Next(Entry *entry)
{
    if (rest.empty())
        return false;
    malformed = true;
    const bool told = ids != FileIds::None;
    const size_t head = told ? kEntryWithIdSize : kEntrySize;
    if (rest.size() < head)
        return false;
    const auto record = Load<nt::FILE_FULL_DIR_INFORMATION>(rest, kEntrySize);
    if (record.FileNameLength > rest.size() - head || record.FileNameLength % 2 != 0)
        return false;
    if (record.NextEntryOffset != 0 &&
        (record.NextEntryOffset < head || record.NextEntryOffset > rest.size()))
        return false;
    malformed = false;
    const bool reparse = (record.FileAttributes & nt::FILE_ATTRIBUTE_REPARSE_POINT) != 0;
    entry->facts = {.creationTime = record.CreationTime,
                    .lastAccessTime = record.LastAccessTime,
                    .lastWriteTime = record.LastWriteTime,
                    .changeTime = record.ChangeTime,
                    .endOfFile = record.EndOfFile,
                    .allocationSize = record.AllocationSize,
                    .attributes = record.FileAttributes,
                    .reparseTag = reparse ? record.EaSize : 0};
    if (told) {
        const auto listed = Load<nt::FODR_LISTED_FILE>(rest.subspan(kIds), sizeof(nt::FODR_LISTED_FILE));
        entry->facts.id = listed.FileId;
        entry->facts.mode = listed.Mode;
        entry->facts.links = listed.Links;
        entry->facts.owner = listed.Owner;
        entry->facts.group = listed.Group;
    }
    if (ids == FileIds::Dropped)
        entry->facts.DropId();
    entry->name = rest.subspan(head, record.FileNameLength);
    rest = record.NextEntryOffset == 0 ? ByteSpan{} : rest.subspan(record.NextEntryOffset);
    return true;
}

PreReadReader::PreReadReader(ByteSpan block)
{
    if (block.size() < kWireSize<FODR_PRE_READ_BLOCK>)
        return;
    const auto head = LoadRecord<FODR_PRE_READ_BLOCK>(block.data());
    if (head.TotalLength < kWireSize<FODR_PRE_READ_BLOCK> || head.TotalLength > block.size())
        return;
    rest = block.subspan(kWireSize<FODR_PRE_READ_BLOCK>, head.TotalLength - kWireSize<FODR_PRE_READ_BLOCK>);
    left = head.EntryCount;
}

bool PreReadReader::Next(Entry *entry)
{
    if (left == 0 || rest.size() < kWireSize<FODR_PRE_READ_ENTRY>)
        return false;
    const auto head = LoadRecord<FODR_PRE_READ_ENTRY>(rest.data());
    rest = rest.subspan(kWireSize<FODR_PRE_READ_ENTRY>);
    if (head.Length > rest.size()) {
        left = 0;
        return false;
    }
    --left;
    *entry = {head.MajorFunction, head.InformationClass, rest.first(head.Length)};
    rest = rest.subspan(head.Length);
    return true;
}

bool ReadPreReadFacts(ByteSpan block, FileFacts *facts)
{
    bool basicFound = false, standardFound = false;
    PreReadReader reader(block);
    for (PreReadReader::Entry entry; reader.Next(&entry);) {
        if (entry.majorFunction != IRP_MJ_QUERY_INFORMATION)
            continue;
        if (entry.informationClass == nt::FileBasicInformation && entry.data.size() >= kBasicSize) {
            TakeBasic(Load<nt::FILE_BASIC_INFORMATION>(entry.data, kBasicSize), facts);
            basicFound = true;
        }
        if (entry.informationClass == nt::FileStandardInformation && entry.data.size() >= kStandardSize) {
            const auto standard = Load<nt::FILE_STANDARD_INFORMATION>(entry.data, kStandardSize);
            facts->endOfFile = standard.EndOfFile;
            facts->allocationSize = standard.AllocationSize;
            standardFound = true;
        }
    }
    return basicFound && standardFound;
}

} // namespace fodr::agent
