#include "WireExamples.h"
#include "lib/misc/MallocBuffer.h"
#include "platform/NtRecords.h"
#include "rdpdr/wire/RdpdrPacker.h"
#include "rdpdr/wire/WireLayout.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace fodr {
namespace {

using namespace nt;

// A native listing entry whose bytes from `from` on are 1, 2, 3 ...
MallocBuffer Entry(size_t size, size_t nameLengthOffset, uint32_t nameLength)
{
    MallocBuffer entry = MallocBuffer::Allocate(size);
    for (size_t i = 0; i < size; ++i)
        entry.Data()[i] = static_cast<uint8_t>(i);
    StoreLittle(entry.Data() + nameLengthOffset, nameLength);
    return entry;
}

struct PackCase {
    uint32_t infoClass;
    size_t nameLengthOffset, nameOffset;
    uint32_t wireNameOffset;
};
constexpr PackCase kPackCases[] = {
    {FileDirectoryInformation, 60, 64, 64},
    {FileFullDirectoryInformation, 60, 68, 68},
    {FileBothDirectoryInformation, 60, 94, 93},
    {FileNamesInformation, 8, 12, 12},
};

// Packs a copy of the entry that has not a byte to spare; the result is what went out.
Bytes Pack(uint32_t infoClass, const MallocBuffer &entry)
{
    MallocBuffer copy = MallocBuffer::Allocate(entry.Size());
    memcpy(copy.Data(), entry.Data(), entry.Size());
    uint8_t *out = nullptr;
    uint32_t length = 0;
    EXPECT_EQ(
        RdpdrPacker("\\??\\C:")
            .PackDirectoryEntry(infoClass, copy.Data(), static_cast<uint32_t>(copy.Size()), &out, &length),
        STATUS_SUCCESS);
    Bytes bytes(out, out + length);
    MallocBuffer made(out != copy.Data() ? out : nullptr, length);
    return bytes;
}

TEST(RdpdrPacker, SizesEachEntryByItsName)
{
    for (const PackCase &test : kPackCases) {
        // Two bytes more than name and fixed part: what the platform counts doesn't go out.
        MallocBuffer entry = Entry(test.nameOffset + 12, test.nameLengthOffset, 10);
        Bytes packed = Pack(test.infoClass, entry);
        ASSERT_EQ(packed.size(), test.wireNameOffset + 10) << test.infoClass;
        EXPECT_EQ(0, memcmp(packed.data() + test.wireNameOffset, entry.Data() + test.nameOffset, 10));
        EXPECT_EQ(0, memcmp(packed.data(), entry.Data(), std::min<size_t>(test.nameOffset, 69)));
    }
    EXPECT_EQ(Pack(FileIdBothDirectoryInformation, Entry(50, 20, 4)).size(), 50u);
}

TEST(RdpdrPacker, DropsTheReservedByteOfABothEntry)
{
    Bytes packed = Pack(FileBothDirectoryInformation, Entry(96, 60, 2));
    ASSERT_EQ(packed.size(), 95u);
    EXPECT_EQ(packed[68], 68); // ShortNameLength
    EXPECT_EQ(packed[69], 70); // ShortName, 24 bytes
    EXPECT_EQ(packed[92], 93);
    EXPECT_EQ(packed[93], 94); // FileName
}

TEST(RdpdrPacker, CutsANameThatTheEntryDoesNotHold)
{
    for (const PackCase &test : kPackCases) {
        for (uint32_t lying : {7u, 1000u, 0xFFFFFFFFu}) {
            MallocBuffer entry = Entry(test.nameOffset + 6, test.nameLengthOffset, lying);
            EXPECT_EQ(Pack(test.infoClass, entry).size(), test.wireNameOffset + 6) << test.infoClass;
        }
        EXPECT_EQ(Pack(test.infoClass, Entry(12, 8, 500)).size(), 12u)
            << test.infoClass; // not even a fixed part
    }
}

struct Native {
    NTSTATUS status;
    bool sameBlock;
    Bytes bytes;
};

Native Unpack(uint32_t infoClass, Bytes wire, uint32_t length)
{
    // RdpdrPacker makes its own copy of the root.
    RdpdrPacker packer(std::string("\\??\\C:"));
    uint8_t *out = nullptr;
    uint32_t outLength = length;
    NTSTATUS status = packer.UnpackSetInformation(infoClass, wire.data(), length, &out, &outLength);
    Native native{status, out == wire.data(), out ? Bytes(out, out + outLength) : Bytes()};
    MallocBuffer made(native.sameBlock ? nullptr : out, outLength);
    return native;
}

TEST(RdpdrPacker, PassesSetBuffersOnWhereTheFormsAgree)
{
    Native basic = Unpack(FileBasicInformation, Bytes(40, 7), 36);
    EXPECT_TRUE(basic.sameBlock);
    EXPECT_EQ(basic.bytes.size(), 40u);
    Native end = Unpack(FileEndOfFileInformation, Bytes(8, 1), 8);
    EXPECT_TRUE(end.sameBlock);
    EXPECT_EQ(end.bytes.size(), 8u);
    Native keep = Unpack(FileDispositionInformation, Bytes{0}, 1);
    EXPECT_TRUE(keep.sameBlock);
    EXPECT_EQ(keep.bytes, Bytes{0});
    Native remove = Unpack(FileDispositionInformation, Bytes(1), 0);
    EXPECT_FALSE(remove.sameBlock);
    EXPECT_EQ(remove.bytes, Bytes{1});
}

TEST(RdpdrPacker, RenamesToANameBelowTheRoot)
{
    const std::u16string kTarget = u"\\??\\C:\\b"; // root and wire name, the zero counted off
    Bytes request = WireExample("Set information");
    Bytes wire(request.begin() + 56, request.end());
    wire[1] = 0xFF; // RootDirectory is ignored
    Native native = Unpack(FileRenameInformation, wire, static_cast<uint32_t>(wire.size()));
    ASSERT_EQ(native.status, STATUS_SUCCESS);
    size_t nameBytes = (kTarget.size() + 1) * 2;
    ASSERT_EQ(native.bytes.size(), nameBytes + 24);
    EXPECT_EQ(native.bytes[0], 1);
    EXPECT_EQ(LoadLittle<uint64_t>(native.bytes.data() + 8), 0u);
    EXPECT_EQ(LoadLittle<uint32_t>(native.bytes.data() + 16), kTarget.size() * 2);
    EXPECT_EQ(0, memcmp(native.bytes.data() + 20, kTarget.c_str(), nameBytes));
}

TEST(RdpdrPacker, RefusesARenameWhoseNameIsNotThere)
{
    Bytes wire = {0, 0, 6, 0, 0, 0, '\\', 0, 'b', 0, 0, 0};
    for (uint32_t size = 0; size < wire.size(); ++size) {
        Native native = Unpack(FileRenameInformation, Bytes(wire.begin(), wire.begin() + size), size);
        EXPECT_EQ(native.status, STATUS_INVALID_PARAMETER) << size;
        EXPECT_TRUE(native.bytes.empty());
    }
    for (uint32_t lying : {7u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        StoreLittle(wire.data() + 2, lying);
        EXPECT_EQ(Unpack(FileRenameInformation, wire, 12).status, STATUS_INVALID_PARAMETER) << lying;
    }
}

} // namespace
} // namespace fodr
