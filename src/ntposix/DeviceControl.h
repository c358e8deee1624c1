// One device control request, and those of its codes that have a file of their own.
#pragma once

#include "ntposix/OpenFile.h"

#include <algorithm>
#include <cstring>
#include <span>

namespace fodr::ntposix {

struct Control {
    OpenFile &file;
    std::span<const uint8_t> input;
    std::span<uint8_t> output;
    uint64_t written = 0;

    // False when the input is too short for the record.
    template <typename Record> [[nodiscard]] bool Read(Record *record) const
    {
        if (input.size() < sizeof(Record))
            return false;
        memcpy(record, input.data(), sizeof(Record));
        return true;
    }
    // Appends to the output, as far as there is room for it: false when there isn't.
    [[nodiscard]] bool Write(const void *data, size_t size)
    {
        const size_t fitting = std::min<size_t>(size, output.size() - written);
        memcpy(output.data() + written, data, fitting);
        written += fitting;
        return fitting == size;
    }
};

// Reparse points (MS-FSCC 2.1.2).
nt::NTSTATUS GetReparsePoint(Control &control);
// Makes a link, a FIFO or a socket of an empty file that has one name. The handle stays the file's, which is
// removed.
nt::NTSTATUS SetReparsePoint(Control &control);

// Ranges of files: space that is reserved, bytes that are copied within the host.
nt::NTSTATUS AllocateRange(Control &control);
nt::NTSTATUS CopyRange(Control &control);

} // namespace fodr::ntposix
