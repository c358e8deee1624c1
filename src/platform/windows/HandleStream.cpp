#include "platform/windows/HandleStream.h"

#include "lib/misc/Mutex.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <vector>

namespace fodr::platform {

// A call that uses the ends. Shutdown may have to close them, which waits for the last of these.
class HandleStream::Use {
public:
    explicit Use(HandleStream &used) : stream(used)
    {
        const MutexLock held(stream.lock);
        valid = !stream.shutDown && stream.readEnd != nullptr;
        if (valid)
            ++stream.users;
    }
    ~Use()
    {
        if (!valid)
            return;
        const MutexLock held(stream.lock);
        if (--stream.users == 0 && stream.closeWhenIdle) {
            stream.readEnd.reset();
            stream.writeEnd.reset();
        }
    }
    Use(const Use &) = delete;
    Use &operator=(const Use &) = delete;

    explicit operator bool() const { return valid; }

private:
    HandleStream &stream;
    bool valid;
};

HandleStream::HandleStream(std::unique_ptr<StreamEnd> readFrom, std::unique_ptr<StreamEnd> writeTo)
    : readEnd(std::move(readFrom)), writeEnd(std::move(writeTo)),
      stop(CreateEventW(nullptr, TRUE, FALSE, nullptr)),
      readDone(CreateEventW(nullptr, TRUE, FALSE, nullptr)),
      writeDone(CreateEventW(nullptr, TRUE, FALSE, nullptr))
{}

HandleStream::~HandleStream() = default;

// Waits for a transfer that was started with the result `started`. WAIT_TIMEOUT when the time was over,
// ERROR_OPERATION_ABORTED after Shutdown; nothing was moved then.
DWORD HandleStream::Await(StreamEnd &end, OVERLAPPED *overlapped, DWORD started, int timeoutMS, DWORD *moved)
{
    *moved = 0;
    if (started != ERROR_SUCCESS && started != ERROR_IO_PENDING)
        return started;
    DWORD waited = WAIT_OBJECT_0;
    if (started == ERROR_IO_PENDING) {
        const HANDLE handles[] = {overlapped->hEvent, stop.Get()};
        waited = WaitForMultipleObjects(2, handles, FALSE,
                                        timeoutMS < 0 ? INFINITE : static_cast<DWORD>(timeoutMS));
        if (waited != WAIT_OBJECT_0)
            end.Cancel(overlapped);
    }
    const DWORD result = end.Finish(overlapped, moved);
    if (waited == WAIT_TIMEOUT && result == ERROR_OPERATION_ABORTED)
        return WAIT_TIMEOUT;
    return result; // it may have ended just before it was cancelled
}

ptrdiff_t HandleStream::Read(std::span<std::byte> buffer, int timeoutMS)
{
    const Use use(*this);
    if (!use)
        return kEnd;
    const ULONGLONG begun = GetTickCount64();
    int leftMS = timeoutMS;
    DWORD moved = 0;
    DWORD result;
    do {
        if (timeoutMS > 0)
            leftMS = std::max(timeoutMS - static_cast<int>(GetTickCount64() - begun), 0);
        OVERLAPPED overlapped{};
        overlapped.hEvent = readDone.Get();
        const DWORD started = readEnd->StartRead(buffer, &overlapped);
        result = Await(*readEnd, &overlapped, started, leftMS, &moved);
    } while (result == ERROR_SUCCESS && moved == 0 && !buffer.empty() && !readEnd->EndsWithNothing());
    switch (result) {
    case ERROR_SUCCESS:
        return static_cast<ptrdiff_t>(moved);
    case WAIT_TIMEOUT:
        return kTimedOut;
    case ERROR_BROKEN_PIPE:
    case ERROR_HANDLE_EOF:
    case ERROR_PIPE_NOT_CONNECTED:
    case ERROR_OPERATION_ABORTED:
        return kEnd;
    default:
        return WaitForSingleObject(stop.Get(), 0) == WAIT_OBJECT_0 ? kEnd : kFailed;
    }
}

bool HandleStream::WriteBlock(ByteView block)
{
    // Of one call. With a limit of time a piece that a slow line moves in it.
    const size_t most = writeTimeoutMS < 0 ? 1 << 24 : 1 << 16;
    while (!block.empty()) {
        OVERLAPPED overlapped{};
        overlapped.hEvent = writeDone.Get();
        DWORD moved = 0;
        const ByteView part = block.first(std::min(block.size(), most));
        const DWORD started = WriteEnd().StartWrite(part, &overlapped);
        const DWORD result = Await(WriteEnd(), &overlapped, started, writeTimeoutMS, &moved);
        writeTimedOut = result == WAIT_TIMEOUT;
        if (result != ERROR_SUCCESS)
            return false;
        block = block.subspan(moved);
    }
    return true;
}

bool HandleStream::Write(std::span<const ByteView> blocks)
{
    const Use use(*this);
    if (!use)
        return false;
    // Small blocks go in one piece: the peer is woken once, and a frame's head isn't sent for itself.
    constexpr size_t kSmall = 64 * 1024;
    std::vector<std::byte> joined;
    for (const ByteView block : blocks) {
        if (!joined.empty() && joined.size() + block.size() > kSmall) {
            if (!WriteBlock(joined))
                return false;
            joined.clear();
        }
        if (block.size() < kSmall)
            joined.insert(joined.end(), block.begin(), block.end());
        else if (!WriteBlock(block))
            return false;
    }
    return WriteBlock(joined);
}

void HandleStream::Shutdown()
{
    const MutexLock held(lock);
    if (shutDown || !readEnd)
        return;
    shutDown = true;
    SetEvent(stop.Get());
    closeWhenIdle = WriteEnd().EndSending();
    if (closeWhenIdle && users == 0) {
        readEnd.reset();
        writeEnd.reset();
    }
}

bool HandleStream::PeerIsThisUser() const
{
    return readEnd && !writeEnd && readEnd->PeerIsThisUser(); // of two pipes, as of a pair of pipes anywhere
}

std::nullptr_t FailWith(std::string *error, DWORD code)
{
    if (error)
        *error = SystemErrorText(code);
    return nullptr;
}

} // namespace fodr::platform
