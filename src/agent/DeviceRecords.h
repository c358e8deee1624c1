// Goes through the packets that announce and remove shares, without leaving them.
#pragma once

#include "agent/RdpdrClient.h"

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

} // namespace fodr::agent
