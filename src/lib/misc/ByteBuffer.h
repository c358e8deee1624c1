// Byte buffer that grows on demand and ends as one malloc block. Not safe for several threads.
#pragma once

#include "lib/misc/MallocBuffer.h"

#include <cstddef>
#include <cstdint>

namespace fodr {

class ByteBuffer {
public:
    ByteBuffer() = default;
    ~ByteBuffer();
    ByteBuffer(const ByteBuffer &) = delete;
    ByteBuffer &operator=(const ByteBuffer &) = delete;
    ByteBuffer(ByteBuffer &&other) noexcept;
    ByteBuffer &operator=(ByteBuffer &&other) noexcept;

    const uint8_t *Data() const { return data; } // null while nothing was reserved
    size_t Size() const { return size; }
    size_t Capacity() const { return capacity; }

    // Makes room for `extra` bytes behind the present ones and gives where they start; null without memory,
    // with the contents kept. What was written there counts once it is committed.
    [[nodiscard]] uint8_t *Reserve(size_t extra);
    // At most what was reserved.
    void Commit(size_t written) { size += written; }
    // False without memory, with nothing appended.
    [[nodiscard]] bool Append(const void *bytes, size_t length);
    // Empty, the memory kept.
    void Clear() { size = 0; }

    // Hands the bytes out, cut to size, and leaves the buffer empty. An empty result has no block.
    [[nodiscard]] MallocBuffer Detach();

private:
    uint8_t *data = nullptr;
    size_t size = 0;
    size_t capacity = 0;
};

} // namespace fodr
