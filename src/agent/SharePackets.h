// Goes through the packets that announce and remove shares, without leaving them.
#pragma once

#include "agent/ClientOptions.h"
#include "agent/RdpdrClient.h"

#include <cstdint>
#include <vector>

namespace fodr::agent {

class AnnounceReader {
public:
    explicit AnnounceReader(ByteSpan packet);
    // False at the end, and when a record leaves the packet: then Malformed says so. Devices that aren't file
    // systems are passed over.
    [[nodiscard]] bool Next(RemoteDevice *device);
    bool Malformed() const { return malformed; }

private:
    bool Take(size_t count, ByteSpan *taken);
    bool ReadOne(RemoteDevice *device, uint32_t *type);

    ByteSpan rest;
    uint32_t left = 0;
    bool malformed = false;
};

class RemoveReader {
public:
    explicit RemoveReader(ByteSpan packet);
    [[nodiscard]] bool Next(uint32_t *deviceId);
    bool Malformed() const { return malformed; }

private:
    ByteSpan rest;
    uint32_t left = 0;
    bool malformed = false;
};

// The policy packet that tells the plug-in what it may share.

// The whole packet in the form that `version` calls for: from 5 on the folders are counted and the device
// filter follows.
std::vector<uint8_t> MakePolicyPacket(const PolicyOptions &options, uint16_t version);

} // namespace fodr::agent
