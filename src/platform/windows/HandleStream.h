// Byte streams over handles that take overlapped I/O: named pipes and sockets.
#pragma once

#include "lib/misc/Mutex.h"
#include "platform/ByteStream.h"
#include "platform/windows/Win32.h"

#include <atomic>

namespace fodr::platform {

// What differs between a pipe and a socket. The calls start a transfer and return 0, ERROR_IO_PENDING or the
// error.
class StreamEnd {
public:
    virtual ~StreamEnd() = default;
    virtual DWORD StartRead(std::span<std::byte> buffer, OVERLAPPED *overlapped) = 0;
    virtual DWORD StartWrite(ByteView block, OVERLAPPED *overlapped) = 0;
    // Bytes moved, or the error of the transfer; waits for its end.
    virtual DWORD Finish(OVERLAPPED *overlapped, DWORD *moved) = 0;
    virtual void Cancel(OVERLAPPED *overlapped) = 0;
    // Tells the peer that nothing more comes. True when the end has to be closed for that.
    virtual bool EndSending() = 0;
    virtual bool PeerIsThisUser() const { return false; }
    // Whether a read of nothing is the peer's end. At a pipe, somebody has written nothing.
    virtual bool EndsWithNothing() const { return true; }
};

class HandleStream final : public ByteStream {
public:
    // `writeTo` is null when `readFrom` serves both directions.
    HandleStream(std::unique_ptr<StreamEnd> readFrom, std::unique_ptr<StreamEnd> writeTo);
    ~HandleStream() override;

    ptrdiff_t Read(std::span<std::byte> buffer, int timeoutMS) override;
    bool Write(std::span<const ByteView> blocks) override;
    void SetWriteTimeout(int timeoutMS) override { writeTimeoutMS = timeoutMS; }
    bool WriteTimedOut() const override { return writeTimedOut; }
    void Shutdown() override;
    bool PeerIsThisUser() const override;

private:
    class Use;

    StreamEnd &WriteEnd() { return writeEnd ? *writeEnd : *readEnd; }
    DWORD Await(StreamEnd &end, OVERLAPPED *overlapped, DWORD started, int timeoutMS, DWORD *moved);
    bool WriteBlock(ByteView block);

    std::unique_ptr<StreamEnd> readEnd; // both null once they had to be closed
    std::unique_ptr<StreamEnd> writeEnd;
    const OwnedHandle stop; // manual-reset
    const OwnedHandle readDone;
    const OwnedHandle writeDone;

    int writeTimeoutMS = kNoTimeout;
    std::atomic<bool> writeTimedOut{false};

    Mutex lock;
    int users GUARDED_BY(lock) = 0; // calls that use the ends
    bool shutDown GUARDED_BY(lock) = false;
    bool closeWhenIdle GUARDED_BY(lock) = false;
};

// A pipe's end. `peerIsServer` tells which side of a named pipe the peer is; null makes null.
std::unique_ptr<StreamEnd> MakePipeEnd(OwnedHandle pipe, bool peerIsServer);

// One direction or both, this process's end `ours` overlapped, `theirs` plain when it is to be inherited.
enum class PipeUse { Duplex, WeRead, WeWrite };
bool MakePipe(PipeUse use, bool theirsIsInherited, OwnedHandle *ours, OwnedHandle *theirs);

// Writes the text of the last error, or of `code`, to `*error` unless that is null. Returns null.
std::nullptr_t FailWith(std::string *error, DWORD code);

} // namespace fodr::platform
