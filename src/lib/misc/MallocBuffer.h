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

} // namespace fodr
