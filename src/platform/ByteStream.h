// Byte streams between processes: a pair of pipes (standard input and output), local sockets, TCP. At the end
// of this header: sockets for datagrams.
//
// One thread may read while others write; writers take turns outside this class. Shutdown may be called from
// any thread at any time. A write to a peer that is gone fails and never ends the process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <utility>

namespace fodr::platform {

using ByteView = std::span<const std::byte>;

class ByteStream {
public:
    // Results of Read that aren't a count of bytes.
    static constexpr ptrdiff_t kEnd = 0;
    static constexpr ptrdiff_t kFailed = -1;
    static constexpr ptrdiff_t kTimedOut = -2;
    static constexpr int kNoTimeout = -1;

    virtual ~ByteStream() = default;
    ByteStream(const ByteStream &) = delete;
    ByteStream &operator=(const ByteStream &) = delete;

    // Waits for data, at most `timeoutMS`, and takes what is there: 1 to buffer.size() bytes, or one of the
    // results above. kEnd: the peer has closed its side, or Shutdown was called.
    [[nodiscard]] virtual ptrdiff_t Read(std::span<std::byte> buffer, int timeoutMS = kNoTimeout) = 0;

    // Writes all bytes of all blocks in order, waiting as long as the peer doesn't read. False when they
    // couldn't all be written; the stream is of no use from then on.
    [[nodiscard]] virtual bool Write(std::span<const ByteView> blocks) = 0;

    // Writes what the stream takes without waiting, and returns how many bytes that was: none when it is
    // full, has ended or failed, or can't tell; Write shows which. Of the same writer's turn as Write.
    [[nodiscard]] virtual size_t TryWrite([[maybe_unused]] std::span<const ByteView> blocks) { return 0; }

    // From now on a Write fails when the peer takes nothing of it for so long; standard streams can't tell.
    // Before the first Write.
    virtual void SetWriteTimeout([[maybe_unused]] int timeoutMS) {}
    // Whether that is why a Write failed.
    [[nodiscard]] virtual bool WriteTimedOut() const { return false; }

    // Ends both directions: reads and writes that wait, and later ones, return. Bytes written before still
    // reach the peer. The stream stays open until it is destroyed.
    virtual void Shutdown() = 0;

    // Whether the process at the other end of a local socket, or of a TCP connection within this machine,
    // belongs to the user of this one. False for streams that can't tell.
    [[nodiscard]] virtual bool PeerIsThisUser() const { return false; }

protected:
    ByteStream() = default;
};

// Waits for peers to connect.
class StreamListener {
public:
    virtual ~StreamListener() = default;
    StreamListener(const StreamListener &) = delete;
    StreamListener &operator=(const StreamListener &) = delete;

    // The next peer, or null: the time ran out or Shutdown was called.
    [[nodiscard]] virtual std::unique_ptr<ByteStream> Accept(int timeoutMS = ByteStream::kNoTimeout) = 0;
    // Ends waiting and later Accepts. Safe from any thread.
    virtual void Shutdown() = 0;
    // The TCP port that is listened on, 0 for a local socket.
    [[nodiscard]] virtual uint16_t Port() const = 0;

protected:
    StreamListener() = default;
};

// Each makes a stream or listener, or returns null and says why in `*error` (may be null) in a few words
// that can stand behind a colon.

// Standard input for reading and standard output for writing. To be made once; other output then has to go
// to standard error.
std::unique_ptr<ByteStream> OpenStandardStream(std::string *error);

// Two ends that are connected with each other, in this process.
std::pair<std::unique_ptr<ByteStream>, std::unique_ptr<ByteStream>> MakeStreamPair();

// `host` is a name or an address. Tries each address of the name until `timeoutMS` is over.
std::unique_ptr<ByteStream> ConnectTcp(const std::string &host, uint16_t port, int timeoutMS,
                                       std::string *error);
// Port 0 takes a free one. An empty address listens on all.
std::unique_ptr<StreamListener> ListenTcp(const std::string &address, uint16_t port, std::string *error);

// Sockets with a path. The socket of a listener is only for this user, and replaces one that a dead
// process has left; when a live one answers on it, listening fails. The path is removed with the listener.
std::unique_ptr<ByteStream> ConnectLocal(const std::string &path, std::string *error);
std::unique_ptr<StreamListener> ListenLocal(const std::string &path, std::string *error);

// Sockets of the IPv4 family as the system has them, for datagrams; ByteStream.h has reliable streams. Any
// thread, but one thread at a time for each socket.

// The types and protocols have the same numbers everywhere.
inline constexpr int32_t kSocketStream = 1;
inline constexpr int32_t kSocketDatagram = 2;
inline constexpr int32_t kProtocolTcp = 6;
inline constexpr int32_t kProtocolUdp = 17;

inline constexpr int32_t kNoSocket = -1;

// Once before the first socket and after the last one, on systems that ask for it. False on failure.
bool StartSocketLibrary();
bool StopSocketLibrary();

// kNoSocket on failure. No child process inherits it.
int32_t OpenInetSocket(int32_t type, int32_t protocol);
bool CloseInetSocket(int32_t socketHandle);

// The first address of a name or of a dotted address, in network byte order.
bool ResolveInetHost(const std::string &hostName, uint32_t &address);
// A datagram socket thereby knows where it sends to, and nothing is sent.
bool ConnectInetSocket(int32_t socketHandle, uint32_t address, uint16_t port);
// How many bytes were taken, or a negative number. A peer that is gone never ends the process.
int32_t SendOnSocket(int32_t socketHandle, const void *data, int32_t length);

} // namespace fodr::platform
