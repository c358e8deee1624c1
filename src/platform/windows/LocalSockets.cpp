// Sockets with a path are named pipes: the file at the path, which only this user may read, holds the pipe's
// name. A dead process leaves the file, but no pipe.
#include "platform/SystemError.h"
#include "platform/windows/HandleStream.h"
#include "platform/windows/UserIdentity.h"
#include "platform/windows/Win32.h"

#include <algorithm>

namespace fodr::platform {

namespace {

constexpr DWORD kPipeBuffer = 1 << 18;
constexpr DWORD kBusyWaitMS = 5000;
constexpr DWORD kTryAgainMS = 100;
constexpr char kMark[] = "\\\\.\\pipe\\fodr-";

// Empty when there is no such file or it isn't one of ours.
std::string ReadPipeName(const std::wstring &path)
{
    const OwnedHandle file(CreateFileW(path.c_str(), GENERIC_READ,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                       OPEN_EXISTING, 0, nullptr));
    char text[256];
    DWORD size = 0;
    if (!file || !ReadFile(file.Get(), text, sizeof(text), &size, nullptr))
        return {};
    const std::string name(text, size);
    return name.starts_with(kMark) ? name : std::string();
}

OwnedHandle ConnectPipe(const std::wstring &pipe)
{
    for (;;) {
        // Who serves the pipe may learn who we are, and no more: it could have been anybody's name first.
        OwnedHandle connected(
            CreateFileW(pipe.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                        FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
        if (connected || GetLastError() != ERROR_PIPE_BUSY || !WaitNamedPipeW(pipe.c_str(), kBusyWaitMS))
            return connected;
    }
}

// An instance of the pipe that waits for a peer.
OwnedHandle MakeInstance(const std::wstring &pipe, bool isFirst)
{
    ThisUserOnly security;
    SECURITY_ATTRIBUTES *attributes = security.Attributes();
    if (!attributes)
        return {};
    const DWORD first = isFirst ? FILE_FLAG_FIRST_PIPE_INSTANCE : 0;
    return OwnedHandle(
        CreateNamedPipeW(pipe.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | first,
                         PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
                         PIPE_UNLIMITED_INSTANCES, kPipeBuffer, kPipeBuffer, 0, attributes));
}

class PipeListener final : public StreamListener {
public:
    PipeListener(std::wstring pipeName, std::wstring markPath, OwnedHandle first)
        : pipe(std::move(pipeName)), path(std::move(markPath)), instance(std::move(first)),
          connected(CreateEventW(nullptr, TRUE, FALSE, nullptr)),
          stop(CreateEventW(nullptr, TRUE, FALSE, nullptr))
    {}
    ~PipeListener() override
    {
        // Only while it is still ours: a successor may have replaced it.
        if (ReadPipeName(path) == Narrow(pipe))
            DeleteFileW(path.c_str());
    }

    std::unique_ptr<ByteStream> Accept(int timeoutMS) override
    {
        const ULONGLONG begin = GetTickCount64();
        for (;;) {
            const auto passed = static_cast<int64_t>(GetTickCount64() - begin);
            const DWORD left =
                timeoutMS < 0 ? INFINITE : static_cast<DWORD>(std::max<int64_t>(timeoutMS - passed, 0));
            if (!instance)
                instance = MakeInstance(pipe, false);
            const Peer peer = instance ? AwaitPeer(left) : Peer::Lost;
            if (peer == Peer::Came) {
                auto stream =
                    std::make_unique<HandleStream>(MakePipeEnd(std::move(instance), false), nullptr);
                instance = MakeInstance(pipe, false); // the next peer finds somebody at once
                return stream;
            }
            if (peer == Peer::Lost) // whatever the system was short of may come back
                instance.Reset();
            if (peer == Peer::None || left == 0 ||
                WaitForSingleObject(stop.Get(), std::min(left, kTryAgainMS)) != WAIT_TIMEOUT)
                return nullptr;
        }
    }
    void Shutdown() override { SetEvent(stop.Get()); }
    uint16_t Port() const override { return 0; }

private:
    enum class Peer { Came, None, Lost }; // in time, or the instance is of no use

    Peer AwaitPeer(DWORD timeoutMS)
    {
        if (WaitForSingleObject(stop.Get(), 0) == WAIT_OBJECT_0)
            return Peer::None;
        OVERLAPPED overlapped{};
        overlapped.hEvent = connected.Get();
        DWORD ignored = 0;
        if (ConnectNamedPipe(instance.Get(), &overlapped))
            return Peer::Came;
        switch (GetLastError()) {
        case ERROR_IO_PENDING:
            break;
        case ERROR_PIPE_CONNECTED:
        case ERROR_NO_DATA: // it has gone already; what it wrote can be read
            return Peer::Came;
        default:
            return Peer::Lost;
        }
        const HANDLE handles[] = {connected.Get(), stop.Get()};
        const DWORD waited = WaitForMultipleObjects(2, handles, FALSE, timeoutMS);
        if (waited != WAIT_OBJECT_0)
            CancelIoEx(instance.Get(), &overlapped);
        if (GetOverlappedResult(instance.Get(), &overlapped, &ignored, TRUE))
            return Peer::Came; // perhaps just before it was cancelled
        return waited == WAIT_OBJECT_0 ? Peer::Lost : Peer::None;
    }

    const std::wstring pipe;
    const std::wstring path;
    OwnedHandle instance; // null when the next one couldn't be made
    const OwnedHandle connected;
    const OwnedHandle stop;
};

bool WriteMark(const std::wstring &path, const std::string &pipe)
{
    ThisUserOnly security;
    SECURITY_ATTRIBUTES *attributes = security.Attributes();
    if (!attributes)
        return false;
    const OwnedHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE,
                                       attributes, CREATE_NEW, 0, nullptr));
    DWORD written = 0;
    return file && WriteFile(file.Get(), pipe.data(), static_cast<DWORD>(pipe.size()), &written, nullptr);
}

} // namespace

std::unique_ptr<ByteStream> ConnectLocal(const std::string &path, std::string *error)
{
    std::wstring mark;
    std::wstring pipe;
    if (!Widen(path, mark))
        return FailWith(error, ERROR_INVALID_NAME);
    const std::string name = ReadPipeName(mark);
    if (name.empty() || !Widen(name, pipe))
        return FailWith(error, ERROR_FILE_NOT_FOUND);
    OwnedHandle connected = ConnectPipe(pipe);
    if (!connected)
        return FailWith(error, GetLastError());
    return std::make_unique<HandleStream>(MakePipeEnd(std::move(connected), true), nullptr);
}

std::unique_ptr<StreamListener> ListenLocal(const std::string &path, std::string *error)
{
    std::wstring mark;
    std::wstring pipe;
    if (!Widen(path, mark))
        return FailWith(error, ERROR_INVALID_NAME);
    const std::string left = ReadPipeName(mark);
    if (!left.empty()) {
        if (Widen(left, pipe) && ConnectPipe(pipe))
            return FailWith(error, ERROR_ALREADY_EXISTS);
        DeleteFileW(mark.c_str());
    }
    LARGE_INTEGER ticks;
    QueryPerformanceCounter(&ticks);
    const std::string name =
        kMark + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(ticks.QuadPart);
    if (!Widen(name, pipe))
        return FailWith(error, ERROR_INVALID_NAME);
    OwnedHandle first = MakeInstance(pipe, true);
    if (!first || !WriteMark(mark, name))
        return FailWith(error, GetLastError());
    return std::make_unique<PipeListener>(pipe, mark, std::move(first));
}

} // namespace fodr::platform
