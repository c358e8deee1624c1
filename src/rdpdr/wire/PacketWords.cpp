#include "rdpdr/wire/PacketWords.h"

#include "rdpdr/wire/RdpdrConstants.h"
#include "rdpdr/wire/RdpdrRecords.h"
#include "rdpdr/wire/WireLayout.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <span>

namespace fodr {

namespace {

struct KindName {
    uint32_t kind;
    const char *name;
};

constexpr KindName kKindNames[kNamedPacketKinds] = {
    {IRP_MJ_CREATE, "CREATE"},
    {PAKID_PRIVATE_VERSION_EXCHANGE, "VERSION_EXCHANGE"},
    {IRP_MJ_CLOSE, "CLOSE"},
    {IRP_MJ_READ, "READ"},
    {IRP_MJ_WRITE, "WRITE"},
    {IRP_MJ_QUERY_INFORMATION, "QUERY_INFORMATION"},
    {IRP_MJ_SET_INFORMATION, "SET_INFORMATION"},
    {IRP_MJ_QUERY_VOLUME_INFORMATION, "QUERY_VOLUME_INFORMATION"},
    {IRP_MJ_SET_VOLUME_INFORMATION, "SET_VOLUME_INFORMATION"},
    {IRP_MJ_DIRECTORY_CONTROL, "DIRECTORY_CONTROL"},
    {IRP_MJ_DEVICE_CONTROL, "DEVICE_CONTROL"},
    {IRP_MJ_LOCK_CONTROL, "LOCK_CONTROL"},
    {PAKID_CORE_CLIENTID_CONFIRM, "CORE_CLIENTID_CONFIRM"},
    {PAKID_CORE_CLIENT_NAME, "CORE_CLIENT_NAME"},
    {PAKID_CORE_CLIENT_CAPABILITY, "CORE_CLIENT_CAPABILITY"},
    {PAKID_CORE_DEVICELIST_ANNOUNCE, "CORE_DEVICELIST_ANNOUNCE"},
    {PAKID_CORE_DEVICELIST_REMOVE, "CORE_DEVICELIST_REMOVE"},
    {PAKID_CORE_DEVICE_IOCOMPLETION, "CORE_DEVICE_IOCOMPLETION"},
    {PAKID_CORE_DEVICE_IOREQUEST, "CORE_DEVICE_IOREQUEST"},
    {PAKID_CORE_SERVER_ANNOUNCE, "CORE_SERVER_ANNOUNCE"},
    {PAKID_PRN_CACHE_DATA, "PRN_CACHE_DATA"},
    {PAKID_CORE_SERVER_CAPABILITY, "CORE_SERVER_CAPABILITY"},
    {PAKID_PRN_USING_XPS, "PRN_USING_XPS"},
    {PAKID_CORE_USER_LOGGEDON, "CORE_USER_LOGGEDON"},
    {PAKID_CORE_DEVICE_REPLY, "CORE_DEVICE_REPLY"},
};
static_assert(std::ranges::is_sorted(kKindNames, {}, &KindName::kind));

} // namespace

uint32_t NamedPacketKind(size_t place)
{
    return kKindNames[place].kind;
}

size_t PlaceOfPacketKind(uint32_t kind)
{
    const KindName *found = std::ranges::lower_bound(kKindNames, kind, {}, &KindName::kind);
    bool known = found != std::end(kKindNames) && found->kind == kind;
    return known ? static_cast<size_t>(found - kKindNames) : kNamedPacketKinds;
}

uint32_t PacketKind(const void *data, size_t size)
{
    constexpr size_t kPacketId = 2;
    constexpr size_t kMajorFunction = 16;
    std::array<uint8_t, kMajorFunction + sizeof(uint32_t)> head{};
    memcpy(head.data(), data, std::min(size, head.size()));
    uint32_t id = LoadLittle<uint16_t>(head.data() + kPacketId);
    return id == PAKID_CORE_DEVICE_IOREQUEST ? LoadLittle<uint32_t>(head.data() + kMajorFunction) : id;
}

std::string PacketKindName(uint32_t kind)
{
    if (size_t place = PlaceOfPacketKind(kind); place < kNamedPacketKinds)
        return kKindNames[place].name;
    char unknown[32];
    snprintf(unknown, sizeof(unknown), "Unknown(%x)", kind);
    return unknown;
}

namespace {

struct Name {
    uint32_t value;
    const char *text; // with the blank that parts it from what stands before it
};

constexpr Name kDesiredAccess[] = {
    {0x1, " FILE_READ_DATA/FILE_LIST_DIRECTORY"},
    {0x2, " FILE_WRITE_DATA/FILE_ADD_FILE"},
    {0x4, " FILE_APPEND_DATA/FILE_ADD_SUBDIRECTORY"},
    {0x8, " FILE_READ_EA"},
    {0x10, " FILE_WRITE_EA"},
    {0x20, " FILE_EXECUTE/FILE_TRAVERSE"},
    {0x40, " FILE_DELETE_CHILD"},
    {0x10000, " DELETE"},
    {0x20000, " READ_CONTROL"},
    {0x40000, " WRITE_DAC"},
    {0x80000, " WRITE_OWNER"},
    {0x100000, " SYNCHRONIZE"},
    {0x80000000, " GENERIC_READ"},
    {0x40000000, " GENERIC_WRITE"},
    {0x20000000, " GENERIC_EXECUTE"},
    {0x10000000, " GENERIC_ALL"},
};

constexpr Name kFileAttributes[] = {
    {0x1, " FILE_ATTRIBUTE_READONLY"},
    {0x2, " FILE_ATTRIBUTE_HIDDEN"},
    {0x4, " FILE_ATTRIBUTE_SYSTEM"},
    {0x10, " FILE_ATTRIBUTE_DIRECTORY"},
    {0x20, " FILE_ATTRIBUTE_ARCHIVE"},
    {0x40, " FILE_ATTRIBUTE_DEVICE"},
    {0x80, " FILE_ATTRIBUTE_NORMAL"},
    {0x100, " FILE_ATTRIBUTE_TEMPORARY"},
    {0x200, " FILE_ATTRIBUTE_SPARSE_FILE"},
    {0x400, " FILE_ATTRIBUTE_REPARSE_POINT"},
    {0x800, " FILE_ATTRIBUTE_COMPRESSED"},
    {0x1000, " FILE_ATTRIBUTE_OFFLINE"},
    {0x2000, " FILE_ATTRIBUTE_NOT_CONTENT_INDEXED"},
    {0x4000, " FILE_ATTRIBUTE_ENCRYPTED"},
    {0x10000, " FILE_ATTRIBUTE_VIRTUAL"},
};

constexpr Name kShareAccess[] = {
    {0x1, " FILE_SHARE_READ"},
    {0x2, " FILE_SHARE_WRITE"},
    {0x4, " FILE_SHARE_DELETE"},
};

constexpr Name kCreateDisposition[] = {
    {0, " FILE_SUPERSEDE"}, {1, " FILE_OPEN"},      {2, " FILE_CREATE"},
    {3, " FILE_OPEN_IF"},   {4, " FILE_OVERWRITE"}, {5, " FILE_OVERWRITE_IF"},
};

constexpr Name kCreateOptions[] = {
    {0x1, " FILE_DIRECTORY_FILE"},
    {0x2, " FILE_WRITE_THROUGH"},
    {0x4, " FILE_SEQUENTIAL_ONLY"},
    {0x8, " FILE_NO_INTERMEDIATE_BUFFERING"},
    {0x10, " FILE_SYNCHRONOUS_IO_ALERT"},
    {0x20, " FILE_SYNCHRONOUS_IO_NONALERT"},
    {0x40, " FILE_NON_DIRECTORY_FILE"},
    {0x80, " FILE_CREATE_TREE_CONNECTION"},
    {0x100, " FILE_COMPLETE_IF_OPLOCKED"},
    {0x200, " FILE_NO_EA_KNOWLEDGE"},
    {0x400, " FILE_OPEN_REMOTE_INSTANCE"},
    {0x800, " FILE_RANDOM_ACCESS"},
    {0x1000, " FILE_DELETE_ON_CLOSE"},
    {0x2000, " FILE_OPEN_BY_FILE_ID"},
    {0x4000, " FILE_OPEN_FOR_BACKUP_INTENT"},
    {0x8000, " FILE_NO_COMPRESSION"},
    {0x10000, " FILE_OPEN_REQUIRING_OPLOCK"},
    {0x100000, " FILE_RESERVE_OPFILTER"},
    {0x200000, " FILE_OPEN_REPARSE_POINT"},
    {0x400000, " FILE_OPEN_NO_RECALL"},
    {0x800000, " FILE_OPEN_FOR_FREE_SPACE_QUERY"},
};

void AddBitNames(std::string &text, std::span<const Name> names, uint32_t bits)
{
    for (const Name &name : names) {
        if (bits & name.value)
            text += name.text;
    }
}

void AddValueName(std::string &text, std::span<const Name> names, uint32_t value)
{
    for (const Name &name : names) {
        if (value == name.value)
            text += name.text;
    }
}

} // namespace

std::string CreateFlagsText(const DR_CREATE_REQ &create)
{
    std::string text = "\n    Desired Access: [";
    AddBitNames(text, kDesiredAccess, create.DesiredAccess);
    text += " ] FileAttribute: [";
    AddBitNames(text, kFileAttributes, create.FileAttributes);
    text += " ] ShareAccess: [";
    AddBitNames(text, kShareAccess, create.SharedAccess);
    text += " ] CreateDisposition: [";
    AddValueName(text, kCreateDisposition, create.CreateDisposition);
    text += " ] CreateOptions: [";
    AddBitNames(text, kCreateOptions, create.CreateOptions);
    text += " ]";
    return text;
}

} // namespace fodr
