#include "lib/misc/ByteBuffer.h"

#include <cstdlib>
#include <cstring>
#include <utility>

namespace fodr {

ByteBuffer::~ByteBuffer()
{
    free(data);
}

ByteBuffer::ByteBuffer(ByteBuffer &&other) noexcept
    : data(std::exchange(other.data, nullptr)), size(std::exchange(other.size, 0)),
      capacity(std::exchange(other.capacity, 0))
{}

ByteBuffer &ByteBuffer::operator=(ByteBuffer &&other) noexcept
{
    if (this != &other) {
        free(data);
        data = std::exchange(other.data, nullptr);
        size = std::exchange(other.size, 0);
        capacity = std::exchange(other.capacity, 0);
    }
    return *this;
}

uint8_t *ByteBuffer::Reserve(size_t extra)
{
    if (extra > capacity - size) {
        if (extra > SIZE_MAX / 2 - size)
            return nullptr;
        // A first reservation is taken as it is: most buffers are filled by one.
        size_t wanted = size + extra;
        if (wanted < capacity + capacity / 2)
            wanted = capacity + capacity / 2;
        void *grown = realloc(data, wanted ? wanted : 1);
        if (!grown)
            return nullptr;
        data = static_cast<uint8_t *>(grown);
        capacity = wanted;
    }
    return data + size;
}

bool ByteBuffer::Append(const void *bytes, size_t length)
{
    if (length == 0)
        return true;
    uint8_t *end = Reserve(length);
    if (!end)
        return false;
    memcpy(end, bytes, length);
    Commit(length);
    return true;
}

MallocBuffer ByteBuffer::Detach()
{
    if (size == 0) {
        free(data);
        data = nullptr;
    } else if (size < capacity) {
        // Shrinking can't lose the block: when it fails the larger one is handed out.
        if (void *cut = realloc(data, size))
            data = static_cast<uint8_t *>(cut);
    }
    capacity = 0;
    return MallocBuffer(std::exchange(data, nullptr), std::exchange(size, 0));
}

} // namespace fodr
