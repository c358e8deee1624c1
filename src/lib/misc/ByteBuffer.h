// Owner of a block from malloc: what functions that hand out such blocks are caught in. Move-only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <utility>

namespace fodr {

class MallocBuffer {
public:
    MallocBuffer() = default;
    // Takes the block over; null is an empty buffer.
    MallocBuffer(void *block, size_t length) : data(static_cast<uint8_t *>(block)), size(length) {}
    ~MallocBuffer() { free(data); }
    MallocBuffer(const MallocBuffer &) = delete;
    MallocBuffer &operator=(const MallocBuffer &) = delete;
    MallocBuffer(MallocBuffer &&other) noexcept
        : data(std::exchange(other.data, nullptr)), size(std::exchange(other.size, 0))
    {}
    MallocBuffer &operator=(MallocBuffer &&other) noexcept
    {
        if (this != &other) {
            free(data);
            data = std::exchange(other.data, nullptr);
            size = std::exchange(other.size, 0);
        }
        return *this;
    }

    // Bytes not set; empty when there is no memory. A length of 0 still gives a block.
    [[nodiscard]] static MallocBuffer Allocate(size_t length)
    {
        void *block = malloc(length ? length : 1);
        return MallocBuffer(block, block ? length : 0);
    }
    // The same with zeroed bytes.
    [[nodiscard]] static MallocBuffer AllocateZeroed(size_t length)
    {
        void *block = calloc(length ? length : 1, 1);
        return MallocBuffer(block, block ? length : 0);
    }

    uint8_t *Data() { return data; }
    const uint8_t *Data() const { return data; }
    size_t Size() const { return size; }
    std::span<const uint8_t> Bytes() const { return {data, size}; }
    explicit operator bool() const { return data != nullptr; }

    // Gives the block up: the caller frees it.
    [[nodiscard]] uint8_t *Release()
    {
        size = 0;
        return std::exchange(data, nullptr);
    }
    void Reset(void *block = nullptr, size_t length = 0) { *this = MallocBuffer(block, length); }

private:
    uint8_t *data = nullptr;
    size_t size = 0;
};

// Byte buffer that grows on demand and ends as one malloc block. Not safe for several threads.
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
