// The messages and variants of the boundary. A block that we made is shared by count; one that a plug-in put
// together itself is copied where we keep it.
#pragma once

#include "odpservice/odpservice.h"
#include "transport/Frames.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace fodr::host {

void InitVariant(Variant *value);
// Lets go of what it holds and makes it empty.
void ClearVariant(Variant *value);
void SetNumber(Variant *value, uint32_t number);
// Copies the block. The variant is empty when there is no memory for it.
void SetBlock(Variant *value, std::span<const std::byte> block);
// `to` gets a share of `from`'s block, or a copy if it isn't ours.
void ShareVariant(Variant *to, const Variant &from);

inline std::span<const std::byte> BlockOf(const Variant &value)
{
    return {static_cast<const std::byte *>(value.blobData),
            value.blobData != nullptr ? value.value.blobLength : 0};
}

// A message of the boundary, its "context": one that a plug-in fills and sends, or one that came in. Used by
// one thread at a time.
class HostMessage {
public:
    // Outgoing, empty. Ids count up over the whole process.
    explicit HostMessage(uint32_t extOptions);
    // Incoming: a view of the frame, which outlives it.
    explicit HostMessage(const transport::Message &received);
    ~HostMessage();
    HostMessage(const HostMessage &) = delete;
    HostMessage &operator=(const HostMessage &) = delete;

    uint32_t Id() const { return id; }
    uint32_t ExtOptions() const { return extOptions; }
    bool IsPost() const { return post; }
    void SetCommand(uint32_t number) { command = number; }
    bool SetOption(uint32_t option, const Variant *value);

    int32_t ParameterCount() const;
    // What doesn't fit into a message marks it, and it can't be sent.
    void Append(const Variant &value);
    // Empty for an index that isn't there. The caller's to clear.
    void Get(int32_t index, Variant *value) const;

    // As a frame with views of our blocks. False when the message was marked.
    [[nodiscard]] bool ToFrame(transport::Message *frame) const;

private:
    const transport::Message *const incoming = nullptr;
    const uint32_t id;
    const uint32_t extOptions = 0;
    uint32_t command = 0;
    bool post = false;
    bool overfull = false;
    uint16_t count = 0;
    std::array<Variant, transport::kMaxParameters> parameters; // those below count
};

} // namespace fodr::host
