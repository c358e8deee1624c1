// Packet buffer of every path: a base pointer, a cursor and a size. Not safe for several threads at once.
//
// A packet is not trusted: reading past the end gives zero bytes and still succeeds, as if the packet had
// been padded with zeros, and nothing outside of the buffer is ever touched. A handler that must know whether
// a payload is really there asks Remaining().
#pragma once

#include "rdpdr/wire/RdpdrConstants.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace fodr {

class RdpdrStream {
public:
    // Zero-filled. Null when there is no memory or the size is above INT32_MAX. Freed by Free alone.
    [[nodiscard]] static RdpdrStream *Create(size_t size);
    // The same with the first `zeroedSize` bytes zeroed and the rest unset: for a caller that writes the
    // rest.
    [[nodiscard]] static RdpdrStream *CreatePartlyZeroed(size_t size, size_t zeroedSize);
    // Frees the record and its storage together and nulls the caller's pointer. Null is allowed.
    static void Free(RdpdrStream **stream);

    // Wraps a buffer of the caller's, which must outlive this; for sending. Never given to Free.
    RdpdrStream(void *buffer, int32_t length);
    RdpdrStream(const RdpdrStream &) = delete;
    RdpdrStream &operator=(const RdpdrStream &) = delete;

    uint8_t *Base() { return base; }
    const uint8_t *Base() const { return base; }
    // The bytes at the cursor, of which Remaining() are there.
    const uint8_t *Cursor() const { return cursor; }
    int32_t Size() const { return size; }
    size_t Position() const { return static_cast<size_t>(cursor - base); }
    size_t Remaining() const { return static_cast<size_t>(size) - Position(); }

    // Copies `count` bytes from the cursor on and moves it, at most to the end; what lies past the end reads
    // as zeros. False only for a null destination.
    bool Read(void *destination, size_t count);
    // Copies `count` bytes to the cursor and moves it. False, with nothing written, when they don't fit.
    bool Write(const void *source, size_t count);
    // False, with the cursor unmoved, when the offset is at or past the size.
    bool SetPosition(size_t offset);

private:
    RdpdrStream() = default;

    uint8_t *base = nullptr;
    uint8_t *cursor = nullptr;
    int32_t size = 0;
};

struct RdpdrStreamDeleter {
    void operator()(RdpdrStream *stream) const { RdpdrStream::Free(&stream); }
};
// Owner of a stream that Create made.
using RdpdrStreamPtr = std::unique_ptr<RdpdrStream, RdpdrStreamDeleter>;

// ---- I/O completions (MS-RDPEFS 2.2.1.5) ----

// From the DeviceId field of a completion, which is what the builders hand out, to its FileId or Length, and
// to the data behind that.
inline constexpr size_t kBodyFromDeviceId = kCompletionBody - kHeaderEnd;
inline constexpr size_t kDataFromDeviceId = kCompletionData - kHeaderEnd;

// A completion of 20 + `bodySize` bytes, at least 21, zero behind IoStatus. `*deviceIdField` (may be null)
// receives the address of its DeviceId. Null when there is no memory or the packet would be above INT32_MAX.
[[nodiscard]] RdpdrStreamPtr BuildIoCompletion(uint32_t deviceId, uint32_t completionId, int32_t ioStatus,
                                               size_t bodySize, uint8_t **deviceIdField);

// A completion whose Length is `length`, with that many bytes of `data` behind it. Null as above.
[[nodiscard]] RdpdrStreamPtr BuildDataCompletion(uint32_t deviceId, uint32_t completionId, int32_t ioStatus,
                                                 const void *data, size_t length);

// The way up from the protocol to the channel: packets out, and status texts to whoever gave a command.
// Both operations may be called from any thread at once.
class IRdpdrChannel {
public:
    // Tells the host's observers `message` under the cookie of the command that it answers; the cookie may be
    // null or empty. False when there is nobody to tell.
    virtual bool NotifyODPObserver(const char *cookie, const char *message) = 0;
    // Sends one whole packet: all bytes of the stream, wherever its cursor is. The stream stays with the
    // caller and may wrap a buffer on the stack. False when it couldn't be sent.
    virtual bool WriteChannel(RdpdrStream *packet) = 0;

protected:
    ~IRdpdrChannel() = default;
};

} // namespace fodr
