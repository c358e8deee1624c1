// Turns information records between their native and their wire form where the two differ (MS-RDPEFS 2.2.3.3
// and 2.2.3.4, MS-FSCC 2.4). Safe from any thread: nothing changes after construction.
#pragma once

#include "lib/unicode/Utf8Text.h"
#include "platform/NtStatus.h"

#include <cstdint>
#include <string>

namespace fodr {

class RdpdrPacker {
public:
    // The share's root in NT form.
    explicit RdpdrPacker(const std::string &root);
    virtual ~RdpdrPacker() = default;
    RdpdrPacker(const RdpdrPacker &) = delete;
    RdpdrPacker &operator=(const RdpdrPacker &) = delete;

    // In both, `*out` receives either the very block that was passed in or a new malloc block, which is the
    // caller's to free. On failure it is null and `*outLength` is left alone.

    // One native directory entry of `entryLength` bytes. STATUS_NO_MEMORY is the only failure. A
    // FileNameLength that the entry doesn't hold is cut to what it holds.
    nt::NTSTATUS PackDirectoryEntry(uint32_t infoClass, uint8_t *entry, uint32_t entryLength, uint8_t **out,
                                    uint32_t *outLength) const;

    // A set-information buffer from the wire. For FileBasicInformation 40 bytes must be readable at `data`,
    // whatever `length` says: the native call reads them. STATUS_NO_MEMORY, or STATUS_INVALID_PARAMETER for a
    // rename whose name isn't in the buffer.
    nt::NTSTATUS UnpackSetInformation(uint32_t infoClass, uint8_t *data, uint32_t length, uint8_t **out,
                                      uint32_t *outLength);

private:
    nt::NTSTATUS UnpackRename(const uint8_t *data, uint32_t length, uint8_t **out, uint32_t *outLength);

    Utf8Text path;
};

} // namespace fodr
