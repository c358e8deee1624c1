// A caller's buffer that one information record is written to, under NT's rules of length. Any thread.
#pragma once

#include "ntposix/FileMetadata.h"
#include "platform/NtStatus.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace fodr::ntposix {

class InfoBuffer {
public:
    InfoBuffer(void *buffer, uint32_t length) : data(static_cast<uint8_t *>(buffer)), size(length) {}

    // The record must fit: the caller has compared its size with Size().
    template <typename Record> nt::NTSTATUS Put(const Record &record)
    {
        memcpy(data, &record, sizeof(record));
        written = sizeof(record);
        return nt::STATUS_SUCCESS;
    }
    // A record that ends in text at `textOffset`. Of a text that doesn't fit as much is written as does, with
    // STATUS_BUFFER_OVERFLOW. `size` of the buffer is at least the record's.
    template <typename Record>
    nt::NTSTATUS PutWithText(const Record &record, size_t textOffset, std::u16string_view text)
    {
        memcpy(data, &record, textOffset);
        const size_t wanted = text.size() * sizeof(char16_t);
        const size_t room = (size - textOffset) & ~static_cast<size_t>(1);
        const size_t put = wanted < room ? wanted : room;
        memcpy(data + textOffset, text.data(), put);
        written = textOffset + put;
        return put == wanted ? nt::STATUS_SUCCESS : nt::STATUS_BUFFER_OVERFLOW;
    }

    // Further records, each at a multiple of eight: false, with nothing written, for one that doesn't fit.
    template <typename Record>
    bool AppendWithText(const Record &record, size_t textOffset, std::u16string_view text)
    {
        const uint64_t start = (written + 7) / 8 * 8;
        const size_t bytes = textOffset + text.size() * sizeof(char16_t);
        if (start > size || bytes > size - start)
            return false;
        const auto step = static_cast<uint32_t>(start - lastRecord);
        memcpy(data + lastRecord, &step, sizeof(step)); // NextEntryOffset
        memset(data + written, 0, start - written);
        memcpy(data + start, &record, textOffset);
        memcpy(data + start + textOffset, text.data(), bytes - textOffset);
        lastRecord = start;
        written = start + bytes;
        return true;
    }

    uint32_t Size() const { return size; }
    uint64_t Written() const { return written; }

private:
    uint8_t *data;
    uint32_t size;
    uint64_t written = 0;
    uint64_t lastRecord = 0; // where it begins
};

// Fills a caller's buffer with the records of a directory listing (MS-FSCC 2.4.8 and the classes like it).
// Not for several threads at once.
struct ListingClass; // how the records of one class look

class ListingWriter {
public:
    // The least length that NT takes for the class; 0 for one that doesn't list.
    static uint32_t MinimumLength(uint32_t infoClass);
    // Whether records of the class hold more than names.
    static bool NeedsFacts(uint32_t infoClass);

    // `length` is at least MinimumLength.
    ListingWriter(void *callersBuffer, uint32_t callersLength, uint32_t infoClass);

    // Whether a record with a name of that many units may be appended. The first one always may.
    bool HasRoom(size_t nameUnits) const;
    // Records begin at multiples of eight bytes and are never split. `facts.attributes` are complete. False
    // when this is the first one and only a part of its name fits.
    bool Append(std::u16string_view name, const FileMetadata &facts);
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
