#include "rdpdr/wire/PacketKind.h"

#include "rdpdr/wire/RdpdrConstants.h"
#include "rdpdr/wire/WireLayout.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

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

} // namespace fodr
