#include "AgentPackets.h"
#include "lib/misc/ByteBuffer.h"
#include "platform/NtRecords.h"
#include "rdpdr/wire/RdpdrPacker.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace fodr::test {
namespace {

using namespace nt;

// Packs a native listing entry, which is a block that has not a byte to spare.
Bytes Pack(uint32_t infoClass, const Bytes &entry)
{
    MallocBuffer native = MallocBuffer::Allocate(entry.size());
    memcpy(native.Data(), entry.data(), entry.size());
    uint8_t *out = nullptr;
    uint32_t length = 0;
    EXPECT_EQ(
        RdpdrPacker("\\??\\C:")
            .PackDirectoryEntry(infoClass, native.Data(), static_cast<uint32_t>(entry.size()), &out, &length),
        STATUS_SUCCESS);
    Bytes packed(out, out + length);
    MallocBuffer made(out != native.Data() ? out : nullptr, length);
    return packed;
}

TEST(RdpdrPacker, AnEntryEndsWithItsNameOrTheBytesThatThereAre)
{
    const struct {
        uint32_t infoClass;
        size_t nameLengthOffset, nameOffset;
    } classes[] = {
        {FileDirectoryInformation, 60, 64},
        {FileFullDirectoryInformation, 60, 68},
        {FileBothDirectoryInformation, 60, 94},
        {FileNamesInformation, 8, 12},
    };
    for (const auto &c : classes) {
        for (uint32_t nameLength : {0u, 4u, 6u, 7u, 1000u, 0xFFFFFFFFu}) {
            Bytes entry(c.nameOffset + 6);
            for (size_t i = 0; i < entry.size(); ++i)
                entry[i] = static_cast<uint8_t>(i);
            StoreLittle(&entry[c.nameLengthOffset], nameLength);
            Bytes wire = Cut(entry, c.nameOffset + std::min(nameLength, 6u));
            if (c.infoClass == FileBothDirectoryInformation)
                wire.erase(wire.begin() + 69); // reserved, before ShortName
            EXPECT_EQ(Pack(c.infoClass, entry), wire) << c.infoClass << " " << nameLength;
        }
        EXPECT_EQ(Pack(c.infoClass, Bytes(11, 0xFF)), Bytes(11, 0xFF)); // not even a fixed part
    }
    EXPECT_EQ(Pack(FileIdBothDirectoryInformation, Bytes(50, 4)), Bytes(50, 4));
}

struct Native {
    NTSTATUS status;
    bool sameBlock;
    Bytes bytes;
    bool operator==(const Native &) const = default;
};

// A set request's buffer, of which `length` bytes are told.
Native Unpack(uint32_t infoClass, Bytes wire, size_t length)
{
    RdpdrPacker packer(std::string("\\??\\C:")); // makes its own copy of the root
    uint8_t *out = nullptr;
    auto outLength = static_cast<uint32_t>(length);
    NTSTATUS status = packer.UnpackSetInformation(infoClass, wire.data(), outLength, &out, &outLength);
    Native native{status, out && out == wire.data(), out ? Bytes(out, out + outLength) : Bytes()};
    MallocBuffer made(native.sameBlock ? nullptr : out, outLength);
    return native;
}

TEST(RdpdrPacker, PassesSetBuffersOnWhereTheFormsAgree)
{
    EXPECT_EQ(Unpack(FileBasicInformation, Bytes(40, 7), 36), (Native{STATUS_SUCCESS, true, Bytes(40, 7)}));
    EXPECT_EQ(Unpack(FileEndOfFileInformation, Bytes(8, 1), 8), (Native{STATUS_SUCCESS, true, Bytes(8, 1)}));
    EXPECT_EQ(Unpack(FileDispositionInformation, {0}, 1), (Native{STATUS_SUCCESS, true, {0}}));
    EXPECT_EQ(Unpack(FileDispositionInformation, {0}, 0), (Native{STATUS_SUCCESS, false, {1}}));
}

TEST(RdpdrPacker, RenamesToANameBelowTheRoot)
{
    const Bytes request = WireExample("Set information");
    Bytes wire(request.begin() + 56, request.end());
    wire[1] = 0xFF;                                                     // RootDirectory is ignored
    const Bytes name = Utf16(std::u16string_view(u"\\??\\C:\\b\0", 9)); // root and wire name
    Bytes native(name.size() + 24);
    native[0] = 1;
    native[16] = static_cast<uint8_t>(name.size() - 2); // the zero counted off
    std::copy(name.begin(), name.end(), native.begin() + 20);
    EXPECT_EQ(Unpack(FileRenameInformation, wire, wire.size()), (Native{STATUS_SUCCESS, false, native}));
    // A name that isn't there, or not all of it.
    const Native refused{STATUS_INVALID_PARAMETER, false, {}};
    for (size_t size = 0; size < wire.size(); ++size)
        EXPECT_EQ(Unpack(FileRenameInformation, Cut(wire, size), size), refused) << size;
    for (uint32_t lying : {0u, 1u, 7u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        StoreLittle(wire.data() + 2, lying);
        EXPECT_EQ(Unpack(FileRenameInformation, wire, wire.size()), refused) << lying;
    }
}

} // namespace
} // namespace fodr::test
