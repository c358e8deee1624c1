// A caller's buffer that one information record is written to, under NT's rules of length. Any thread.
#pragma once

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

} // namespace fodr::ntposix
