// RdpdrClient: shares that come, go, and come back over another connection.
#include "agent/DeviceRecords.h"
#include "agent/RdpdrClient.h"
#include "rdpdr/wire/RdpdrRecords.h"
#include "runtime/LogCall.h"

#include <algorithm>

namespace fodr::agent {

void RdpdrClient::OnDeviceAnnounce(ByteSpan packet)
{
    AnnounceReader reader(packet);
    for (RemoteDevice device; reader.Next(&device);)
        AddDevice(std::move(device));
    if (reader.Malformed())
        Channel()->Refuse("the plug-in's device announcement leaves its packet");
}

// What is known of the share that is announced: it came back under its number, or, `*back`, over a new
// connection. Another permission is another share: what was opened doesn't fit it.
RdpdrClient::KnownShare *RdpdrClient::FindShare(const RemoteDevice &announced, bool *back)
{
    *back = false;
    for (KnownShare &share : shares) {
        if (share.bound && share.wireId == announced.id)
            return &share;
    }
    for (KnownShare &share : shares) {
        if (share.bound || share.device.name != announced.name || share.device.path != announced.path ||
            share.device.permission != announced.permission)
            continue;
        *back = true;
        return &share;
    }
    return nullptr;
}

uint32_t RdpdrClient::FreeShareId(uint32_t wished) const
{
    while (std::any_of(shares.begin(), shares.end(),
                       [wished](const KnownShare &share) { return share.device.id == wished; }))
        ++wished;
    return wished;
}

void RdpdrClient::AddDevice(RemoteDevice device)
{
    const uint32_t wireId = device.id;
    bool back = false, usable = false;
    {
        const MutexLock held(lock);
        KnownShare *known = FindShare(device, &back);
        device.id = known ? known->device.id : FreeShareId(wireId);
        if (!known)
            known = &shares.emplace_back();
        usable = back && known->usable;
        *known = {.device = device, .wireId = wireId, .bound = true, .usable = usable};
    }
    // A share that came back under its number had lost its files.
    if (!back)
        requests.RemoveShare(device.id);
    RequestTable::Released released = requests.Bind(device.id, wireId);
    LOG_INFO("New device announced: %s, ID = %u.\n", device.name.c_str(), wireId);
    if (!back)
        usable = observer->OnDeviceAdded(device);
    else if (usable)
        observer->OnDeviceBack(device);
    if (usable)
        Accept(device.id);
    SendReleased(std::move(released));
}

void RdpdrClient::Accept(uint32_t deviceId)
{
    uint32_t wireId = 0;
    {
        const MutexLock held(lock);
        const auto known = std::find_if(shares.begin(), shares.end(), [deviceId](const KnownShare &share) {
            return share.device.id == deviceId;
        });
        if (known == shares.end())
            return; // removed
        known->usable = true;
        if (!known->bound || known->accepted)
            return;
        known->accepted = true;
        wireId = known->wireId;
    }
    SendRecord(DR_CORE_DEVICE_ANNOUNCE_RSP{.DeviceId = wireId});
}

void RdpdrClient::OnDeviceRemove(ByteSpan packet)
{
    RemoveReader reader(packet);
    for (uint32_t wireId = 0; reader.Next(&wireId);) {
        uint32_t id = 0;
        {
            const MutexLock held(lock);
            const auto known = std::find_if(shares.begin(), shares.end(), [wireId](const KnownShare &share) {
                return share.bound && share.wireId == wireId;
            });
            if (known == shares.end())
                continue;
            id = known->device.id;
            shares.erase(known);
        }
        requests.RemoveShare(id);
        LOG_INFO("Device removed: ID = %u.\n", wireId);
        observer->OnDeviceRemoved(id);
    }
    if (reader.Malformed())
        Channel()->Refuse("the plug-in's device removal leaves its packet");
}

void RdpdrClient::DropMissingShares(std::string_view name)
{
    std::vector<uint32_t> missing;
    {
        const MutexLock held(lock);
        std::erase_if(shares, [&](const KnownShare &share) {
            if (share.bound || !(name.empty() || share.device.name == name))
                return false;
            missing.push_back(share.device.id);
            return true;
        });
    }
    for (const uint32_t id : missing) {
        requests.RemoveShare(id);
        observer->OnDeviceRemoved(id);
    }
}

} // namespace fodr::agent
