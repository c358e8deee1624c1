#include "ntposix/InfoBuffer.h"

#include "platform/Nt.h"
#include "platform/NtRecords.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

namespace fodr::ntposix {

struct ListingClass {
    uint32_t infoClass;
    uint32_t size;
    uint32_t nameOffset;
    // Writes everything before the name.
    void (*write)(uint8_t *at, uint32_t nameBytes, const FileMetadata &facts);
};

namespace {

template <typename Record> void Write(uint8_t *at, uint32_t nameBytes, const FileMetadata &facts)
{
    Record record{};
    record.FileNameLength = nameBytes;
    if constexpr (requires { record.CreationTime; }) {
        record.CreationTime = facts.creationTime;
        record.LastAccessTime = facts.lastAccessTime;
        record.LastWriteTime = facts.lastWriteTime;
        record.ChangeTime = facts.changeTime;
        record.EndOfFile = facts.endOfFile;
        record.AllocationSize = facts.allocation;
        record.FileAttributes = facts.attributes;
    }
    if constexpr (requires { record.EaSize; }) {
        // MS-FSCC 2.4.8: of a reparse point the field is its tag.
        if (facts.attributes & nt::FILE_ATTRIBUTE_REPARSE_POINT)
            record.EaSize = nt::IO_REPARSE_TAG_SYMLINK;
    }
    if constexpr (requires { record.FileId; })
        record.FileId = static_cast<int64_t>(facts.id);
    if constexpr (std::is_same_v<Record, nt::FILE_BOTH_DIR_INFORMATION>) {
        const nt::FODR_LISTED_FILE file{.FileId = facts.id,
                                        .Mode = facts.mode,
                                        .Owner = facts.owner,
                                        .Group = facts.group,
                                        .Links = facts.links};
        memcpy(record.ShortName, &file, sizeof(file));
    }
    memcpy(at, &record, offsetof(Record, FileName));
}

template <typename Record> constexpr ListingClass Row(uint32_t infoClass)
{
    return {infoClass, sizeof(Record), offsetof(Record, FileName), Write<Record>};
}

constexpr ListingClass kClasses[] = {
    Row<nt::FILE_DIRECTORY_INFORMATION>(nt::FileDirectoryInformation),
    Row<nt::FILE_FULL_DIR_INFORMATION>(nt::FileFullDirectoryInformation),
    Row<nt::FILE_BOTH_DIR_INFORMATION>(nt::FileBothDirectoryInformation),
    Row<nt::FILE_NAMES_INFORMATION>(nt::FileNamesInformation),
    Row<nt::FILE_ID_BOTH_DIR_INFORMATION>(nt::FileIdBothDirectoryInformation),
    Row<nt::FILE_ID_FULL_DIR_INFORMATION>(nt::FileIdFullDirectoryInformation),
};

const ListingClass *RowOf(uint32_t infoClass)
{
    const auto *row = std::ranges::find(kClasses, infoClass, &ListingClass::infoClass);
    return row != std::end(kClasses) ? row : nullptr;
}

} // namespace

uint32_t ListingWriter::MinimumLength(uint32_t infoClass)
{
    const ListingClass *row = RowOf(infoClass);
    return row ? row->size : 0;
}

bool ListingWriter::NeedsFacts(uint32_t infoClass)
{
    return infoClass != nt::FileNamesInformation;
}

ListingWriter::ListingWriter(void *callersBuffer, uint32_t callersLength, uint32_t infoClass)
    : buffer(static_cast<uint8_t *>(callersBuffer)), length(callersLength), layout(*RowOf(infoClass))
{}

bool ListingWriter::Fits(size_t nameUnits) const
{
    return uint64_t{Start()} + layout.nameOffset + nameUnits * sizeof(char16_t) <= length;
}

bool ListingWriter::HasRoom(size_t nameUnits) const
{
    return end == 0 || Fits(nameUnits);
}

bool ListingWriter::Append(std::u16string_view name, const FileMetadata &facts)
{
    const bool fits = Fits(name.size());
    const uint32_t start = Start();
    const uint32_t nameBytes = static_cast<uint32_t>(name.size() * sizeof(char16_t));
    const uint32_t copied = fits ? nameBytes : length - layout.nameOffset;
    memset(buffer + end, 0, start - end);
    layout.write(buffer + start, nameBytes, facts);
    memcpy(buffer + start + layout.nameOffset, name.data(), copied);
    if (start != 0) {
        const uint32_t distance = start - lastRecord;
        memcpy(buffer + lastRecord, &distance, sizeof(distance)); // NextEntryOffset comes first in all
    }
    lastRecord = start;
    end = start + layout.nameOffset + copied;
    return fits;
}

} // namespace fodr::ntposix
