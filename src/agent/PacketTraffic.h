// Totals of the packets on a channel per kind, as both of its ends see them. Any thread; counting takes no
// lock.
#pragma once

#include "rdpdr/wire/PacketWords.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace fodr::agent {

class PacketTraffic {
public:
    struct Row {
        std::string kind;
        uint64_t packets = 0;
        uint64_t bytes = 0;
    };

    // `size` bytes of packet, of which the first `present` are at `data`.
    void Count(const void *data, size_t present, size_t size);

    // The kinds that were seen. Packets of an unknown kind are together in the last row, "other".
    std::vector<Row> Rows() const;

private:
    struct Total {
        std::atomic<uint64_t> packets{0};
        std::atomic<uint64_t> bytes{0};
    };

    std::array<Total, kNamedPacketKinds + 1> totals;
};

} // namespace fodr::agent
