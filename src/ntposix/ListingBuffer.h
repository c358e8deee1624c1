// Fills a caller's buffer with the records of a directory listing (MS-FSCC 2.4.8 and the classes like it).
// Not for several threads at once.
#pragma once

#include "ntposix/FileFacts.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace fodr::ntposix {

struct ListingClass; // how the records of one class look

class ListingBuffer {
public:
    // The least length that NT takes for the class; 0 for one that doesn't list.
    static uint32_t MinimumLength(uint32_t infoClass);
    // Whether records of the class hold more than names.
    static bool NeedsFacts(uint32_t infoClass);

    // `length` is at least MinimumLength.
    ListingBuffer(void *callersBuffer, uint32_t callersLength, uint32_t infoClass);

    // Whether a record with a name of that many units may be appended. The first one always may.
    bool HasRoom(size_t nameUnits) const;
    // Records begin at multiples of eight bytes and are never split. `facts.attributes` are complete. False
    // when this is the first one and only a part of its name fits.
    bool Append(std::u16string_view name, const FileFacts &facts);
    // Bytes up to the end of the last record's name.
    uint32_t Written() const { return end; }

private:
    // Where the next record begins, and whether it fits.
    uint32_t Start() const { return (end + 7) / 8 * 8; }
    bool Fits(size_t nameUnits) const;

    uint8_t *const buffer;
    const uint32_t length;
    const ListingClass &layout;
    uint32_t lastRecord = 0;
    uint32_t end = 0;
};

} // namespace fodr::ntposix
