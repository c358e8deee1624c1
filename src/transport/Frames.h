// The frames that a host and an agent exchange; docs/transport.md shows their bytes.
//
// Every frame is an 8-byte header (body length, type, three zero bytes) and a body. Integers are
// little-endian, texts are UTF-8 with a 16-bit length. Fields lists what the body is made of, in order, for
// the reader and the writer of FrameCodec.cpp. Views point into the reader's buffer and end with the call
// that hands them out.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace fodr::transport {

inline constexpr uint32_t kMagic = 0x52444F46; // "FODR"
inline constexpr uint16_t kVersion = 1;
inline constexpr size_t kFrameHeaderSize = 8;
// The largest body: a message of 16 MiB and room for its headers.
inline constexpr size_t kMaxFrameBody = (16u << 20) + 4096;
inline constexpr size_t kMaxParameters = 16;
inline constexpr size_t kMaxName = 255;  // bytes of an object's name
inline constexpr size_t kMaxText = 4096; // bytes of a notice or reason
inline constexpr size_t kMaxToken = 256; // bytes of a session token
inline constexpr size_t kSecretSize = 16;

using Secret = std::array<std::byte, kSecretSize>;

enum class FrameType : uint8_t {
    Hello = 1,          // both ways, first on a main connection
    ObjectAnnounce = 2, // agent to host: the agent has created its side of an object
    ObjectState = 3,    // both ways: this end's state of an object has changed
    Message = 4,        // both ways
    MessageDone = 5,    // answer to a message that isn't a post
    MessageAbort = 6,   // likewise, when it couldn't be handled
    SideRequest = 7,    // host to agent
    SideOffer = 8,      // agent to host: connect there and show the secret
    SideRefused = 9,    // agent to host
    SideHello = 10,     // host to agent, first on a side connection
    SideReady = 11,     // agent to host on the side connection: the object's messages go here from now on
    Ping = 12,
    Pong = 13,
    Notice = 14,  // agent to host: something for the user
    Goodbye = 15, // host to agent: finish and close; agent to host: closing by itself
};

enum class Role : uint16_t { Host = 1, Agent = 2 };

// Keep-alive times that the host asks for; the agent takes them over. 0 and 0: none, for streams where a lost
// peer is always noticed.
struct KeepAlive {
    uint32_t pingAfterMS = 10000; // nothing received for so long: ask
    uint32_t deadAfterMS = 30000; // nothing received for so long: the peer is lost
};

struct Hello {
    static constexpr auto kType = FrameType::Hello;
    uint16_t version = kVersion;
    Role role = Role::Host;
    KeepAlive keepAlive{};
    std::string_view token; // what the other side was told to expect; empty when nothing was agreed

    static void Fields(auto &body, auto &f)
    {
        body.Magic()
            .OurVersion(f.version)
            .Values(f.role, f.keepAlive.pingAfterMS, f.keepAlive.deadAfterMS)
            .Name(f.token, kMaxToken);
    }
};

// `object` numbers are the agent's choice, one each; flags and options as the boundary of the host has them.
struct ObjectAnnounce {
    static constexpr auto kType = FrameType::ObjectAnnounce;
    uint32_t object = 0;
    uint32_t flags = 0;
    uint32_t options = 0;
    std::string_view name;

    static void Fields(auto &body, auto &f)
    {
        body.Values(f.object, f.flags, f.options).Name(f.name, kMaxName);
    }
};

struct ObjectState {
    static constexpr auto kType = FrameType::ObjectState;
    uint32_t object = 0;
    int32_t state = 0; // as enum ObjectState of odpservice.h

    static void Fields(auto &body, auto &f) { body.Values(f.object, f.state); }
};

// The host answers each new state of an object after the plug-in was told of it. An agent may send messages
// once all its objects are CONNECTED or SIDE_CHANNEL_CONNECTED there; SIDE_CHANNEL_PENDING followed by
// CONNECTED says that the side channel failed and that the plug-in has given up the object.

struct Parameter {
    bool isBlock = false;
    uint32_t number = 0;
    std::span<const std::byte> block{};
    std::span<const std::byte> tail{}; // when sending: the rest of the block, gathered behind it
};

// Has a codec of its own, since its blocks aren't copied.
struct Message {
    static constexpr uint16_t kPost = 1; // flags: no MessageDone is wanted

    uint32_t object = 0;
    uint32_t requestId = 0;
    uint32_t command = 0;
    uint16_t flags = 0;
    uint16_t parameterCount = 0;
    std::array<Parameter, kMaxParameters> parameters{};

    std::span<const Parameter> Parameters() const { return {parameters.data(), parameterCount}; }
};

struct MessageDone {
    static constexpr auto kType = FrameType::MessageDone;
    uint32_t object = 0;
    uint32_t requestId = 0;

    static void Fields(auto &body, auto &f) { body.Values(f.object, f.requestId); }
};

struct MessageAbort {
    static constexpr auto kType = FrameType::MessageAbort;
    uint32_t object = 0;
    uint32_t requestId = 0;
    uint32_t reason = 0;

    static void Fields(auto &body, auto &f) { body.Values(f.object, f.requestId, f.reason); }
};

struct SideRequest {
    static constexpr auto kType = FrameType::SideRequest;
    uint32_t object = 0;
    uint32_t type = 0; // as enum SideChannelType of odpservice.h

    static void Fields(auto &body, auto &f) { body.Values(f.object, f.type); }
};

struct SideOffer {
    static constexpr auto kType = FrameType::SideOffer;
    uint32_t object = 0;
    uint16_t port = 0; // TCP, on the machine of the agent
    Secret secret{};

    static void Fields(auto &body, auto &f) { body.Values(f.object, f.port).Unused().Bytes(f.secret); }
};

struct SideRefused {
    static constexpr auto kType = FrameType::SideRefused;
    uint32_t object = 0;
    std::string_view reason;

    static void Fields(auto &body, auto &f) { body.Values(f.object).Words(f.reason); }
};

struct SideHello {
    static constexpr auto kType = FrameType::SideHello;
    uint16_t version = kVersion;
    uint32_t object = 0;
    Secret secret{};

    static void Fields(auto &body, auto &f)
    {
        body.Magic().Values(f.version).Unused().Values(f.object).Bytes(f.secret);
    }
};

struct SideReady {
    static constexpr auto kType = FrameType::SideReady;
    uint32_t object = 0;

    static void Fields(auto &body, auto &f) { body.Values(f.object); }
};

enum class NoticeKind : uint32_t {
    Mounted = 1,    // the mount point can be used; text: its path
    ShareReady = 2, // a share can be used; text: its name
    Warning = 3,
    Error = 4, // the agent ends because of it
    Unmounted = 5,
};

struct Notice {
    static constexpr auto kType = FrameType::Notice;
    NoticeKind kind = NoticeKind::Warning;
    std::string_view text;

    static void Fields(auto &body, auto &f) { body.Values(f.kind).Words(f.text); }
};

struct Goodbye {
    static constexpr auto kType = FrameType::Goodbye;
    std::string_view reason;

    static void Fields(auto &body, auto &f) { body.Words(f.reason); }
};

struct Ping {
    static constexpr auto kType = FrameType::Ping;
    static void Fields(auto &, auto &) {}
};

struct Pong {
    static constexpr auto kType = FrameType::Pong;
    static void Fields(auto &, auto &) {}
};

// Takes frames as they come, in order, on one thread. What a receiver doesn't expect it may ignore.
class IFrameReceiver {
public:
    virtual void OnHello(const Hello &) {}
    virtual void OnObjectAnnounce(const ObjectAnnounce &) {}
    virtual void OnObjectState(const ObjectState &) {}
    virtual void OnMessage(const Message &) {}
    virtual void OnMessageDone(const MessageDone &) {}
    virtual void OnMessageAbort(const MessageAbort &) {}
    virtual void OnSideRequest(const SideRequest &) {}
    virtual void OnSideOffer(const SideOffer &) {}
    virtual void OnSideRefused(const SideRefused &) {}
    virtual void OnSideHello(const SideHello &) {}
    virtual void OnSideReady(const SideReady &) {}
    virtual void OnNotice(const Notice &) {}
    virtual void OnGoodbye(const Goodbye &) {}
    // Answered by the connection itself; here for whoever drives a decoder directly.
    virtual void OnPing(const Ping &) {}
    virtual void OnPong(const Pong &) {}

protected:
    ~IFrameReceiver() = default;
};

} // namespace fodr::transport
