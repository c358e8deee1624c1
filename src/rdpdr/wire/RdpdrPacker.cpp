#include "rdpdr/wire/RdpdrPacker.h"

#include "lib/misc/ByteBuffer.h"
#include "lib/unicode/CodeSet.h"
#include "platform/NtRecords.h"
#include "rdpdr/wire/RdpdrConstants.h"
#include "rdpdr/wire/RdpdrRecords.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>

namespace fodr {

namespace {

using namespace nt;

// The native byte behind ShortNameLength is no part of the wire form: all from ShortName on moves down by
// one.
constexpr uint32_t kBothReservedByte = offsetof(FILE_BOTH_DIR_INFORMATION, ShortNameLength) + 1;
constexpr uint32_t kBothWireNameOffset = 93;
static_assert(kBothReservedByte == 69 &&
              offsetof(FILE_BOTH_DIR_INFORMATION, FileName) == kBothWireNameOffset + 1);

constexpr uint32_t kBasicInformationSize = sizeof(FILE_BASIC_INFORMATION);

NTSTATUS PackBothEntry(const uint8_t *entry, uint32_t nameLength, uint8_t **out, uint32_t *outLength)
{
    uint32_t wireLength = kBothWireNameOffset + nameLength;
    MallocBuffer packed = MallocBuffer::Allocate(wireLength);
    if (!packed) {
        *out = nullptr;
        return STATUS_NO_MEMORY;
    }
    memcpy(packed.Data(), entry, kBothReservedByte);
    memcpy(packed.Data() + kBothReservedByte, entry + kBothReservedByte + 1, wireLength - kBothReservedByte);
    *out = packed.Release();
    *outLength = wireLength;
    return STATUS_SUCCESS;
}

} // namespace

RdpdrPacker::RdpdrPacker(const std::string &root) : path(root.c_str())
{
    // Makes the UTF-16 form now, since making it later would be a write from several threads. A root that has
    // none ends the process where it is first needed.
    std::u16string probe;
    if (Utf8ToUtf16(root, probe))
        path.GetUtf16Length();
}

NTSTATUS RdpdrPacker::PackDirectoryEntry(uint32_t infoClass, uint8_t *entry, uint32_t entryLength,
                                         uint8_t **out, uint32_t *outLength) const
{
    // Entries with a file id go out as they are.
    const DirectoryEntryShape *shape =
        infoClass <= FileNamesInformation ? FindDirectoryEntryShape(infoClass) : nullptr;
    if (!shape || entryLength < shape->nameOffset) {
        *out = entry;
        *outLength = entryLength;
        return STATUS_SUCCESS;
    }
    uint32_t nameLength =
        std::min(LoadLittle<uint32_t>(entry + shape->nameLengthOffset), entryLength - shape->nameOffset);
    if (infoClass == FileBothDirectoryInformation)
        return PackBothEntry(entry, nameLength, out, outLength);
    *out = entry;
    *outLength = shape->nameOffset + nameLength;
    return STATUS_SUCCESS;
}

NTSTATUS RdpdrPacker::UnpackSetInformation(uint32_t infoClass, uint8_t *data, uint32_t length, uint8_t **out,
                                           uint32_t *outLength)
{
    if (infoClass == FileRenameInformation)
        return UnpackRename(data, length, out, outLength);
    if (infoClass == FileDispositionInformation && length == 0) {
        MallocBuffer deleteFile = MallocBuffer::Allocate(sizeof(FILE_DISPOSITION_INFORMATION));
        if (!deleteFile) {
            *out = nullptr;
            return STATUS_NO_MEMORY;
        }
        deleteFile.Data()[0] = 1;
        *out = deleteFile.Release();
        *outLength = sizeof(FILE_DISPOSITION_INFORMATION);
        return STATUS_SUCCESS;
    }
    *out = data;
    *outLength = infoClass == FileBasicInformation ? kBasicInformationSize : length;
    return STATUS_SUCCESS;
}

NTSTATUS RdpdrPacker::UnpackRename(const uint8_t *data, uint32_t length, uint8_t **out, uint32_t *outLength)
{
    using Wire = RDP_FILE_RENAME_INFORMATION;
    *out = nullptr;
    if (length < kWireSize<Wire>)
        return STATUS_INVALID_PARAMETER;
    auto rename = LoadRecord<Wire>(data);
    size_t rootBytes = path.GetUtf16Length() * sizeof(char16_t);
    size_t nameBytes = rootBytes + rename.FileNameLength;
    // The wire name ends in a zero unit, which doesn't count in the native length. Without that unit the
    // root's own name would lose its last letter, and the file would leave the share.
    if (rename.FileNameLength > length - kWireSize<Wire> || rename.FileNameLength < sizeof(char16_t))
        return STATUS_INVALID_PARAMETER;
    size_t nativeSize = nameBytes + sizeof(FILE_RENAME_INFORMATION);
    if (nativeSize > std::numeric_limits<uint32_t>::max())
        return STATUS_NO_MEMORY;
    MallocBuffer native = MallocBuffer::AllocateZeroed(nativeSize);
    if (!native)
        return STATUS_NO_MEMORY;

    uint8_t *name = native.Data() + offsetof(FILE_RENAME_INFORMATION, FileName);
    native.Data()[offsetof(FILE_RENAME_INFORMATION, ReplaceIfExists)] = rename.ReplaceIfExists;
    StoreLittle(native.Data() + offsetof(FILE_RENAME_INFORMATION, FileNameLength),
                static_cast<uint32_t>(nameBytes - sizeof(char16_t)));
    memcpy(name, path.GetUtf16(), rootBytes);
    memcpy(name + rootBytes, data + kWireSize<Wire>, rename.FileNameLength);
    *outLength = static_cast<uint32_t>(nativeSize);
    *out = native.Release();
    return STATUS_SUCCESS;
}

} // namespace fodr
