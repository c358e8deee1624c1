// Sockets with a path are named pipes: the file at the path, which only this user may read, holds the pipe's
// name. A dead process leaves the file, but no pipe.
#include "platform/SystemError.h"
#include "platform/windows/HandleStream.h"
#include "platform/windows/UserIdentity.h"
#include "platform/windows/WideText.h"

namespace fodr::platform {

namespace {

constexpr DWORD kPipeBuffer = 1 << 18;
constexpr DWORD kBusyWaitMS = 5000;
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
        OwnedHandle connected(CreateFileW(pipe.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                          OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr));
        if (connected || GetLastError() != ERROR_PIPE_BUSY || !WaitNamedPipeW(pipe.c_str(), kBusyWaitMS))
            return connected;
    }
}

// An instance of the pipe that waits for a peer.
OwnedHandle MakeInstance(const std::wstring &pipe, bool isFirst)
{
    SECURITY_ATTRIBUTES attributes{sizeof(attributes), DescriptorForThisUser(), FALSE};
    const DWORD first = isFirst ? FILE_FLAG_FIRST_PIPE_INSTANCE : 0;
    OwnedHandle instance(
        CreateNamedPipeW(pipe.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | first,
                         PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
                         PIPE_UNLIMITED_INSTANCES, kPipeBuffer, kPipeBuffer, 0, &attributes));
    LocalFree(attributes.lpSecurityDescriptor);
    return instance;
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
        if (!instance)
            instance = MakeInstance(pipe, false);
        if (!instance || !AwaitPeer(timeoutMS < 0 ? INFINITE : static_cast<DWORD>(timeoutMS)))
            return nullptr;
        auto stream = std::make_unique<HandleStream>(MakePipeEnd(std::move(instance), false), nullptr);
        instance = MakeInstance(pipe, false); // the next peer finds somebody at once
        return stream;
    }
    void Shutdown() override { SetEvent(stop.Get()); }
    uint16_t Port() const override { return 0; }

private:
    bool AwaitPeer(DWORD timeoutMS)
    {
        if (WaitForSingleObject(stop.Get(), 0) == WAIT_OBJECT_0)
            return false;
        OVERLAPPED overlapped{};
        overlapped.hEvent = connected.Get();
        DWORD ignored = 0;
        if (ConnectNamedPipe(instance.Get(), &overlapped) || GetLastError() == ERROR_PIPE_CONNECTED)
            return true;
        if (GetLastError() != ERROR_IO_PENDING)
            return false;
        const HANDLE handles[] = {connected.Get(), stop.Get()};
        if (WaitForMultipleObjects(2, handles, FALSE, timeoutMS) != WAIT_OBJECT_0)
            CancelIoEx(instance.Get(), &overlapped);
        return GetOverlappedResult(instance.Get(), &overlapped, &ignored, TRUE);
    }

    const std::wstring pipe;
    const std::wstring path;
    OwnedHandle instance; // null when the next one couldn't be made
    const OwnedHandle connected;
    const OwnedHandle stop;
};

bool WriteMark(const std::wstring &path, const std::string &pipe)
{
    SECURITY_ATTRIBUTES attributes{sizeof(attributes), DescriptorForThisUser(), FALSE};
    const OwnedHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE,
                                       &attributes, CREATE_NEW, 0, nullptr));
    const DWORD failure = GetLastError();
    LocalFree(attributes.lpSecurityDescriptor);
    DWORD written = 0;
    if (file)
        return WriteFile(file.Get(), pipe.data(), static_cast<DWORD>(pipe.size()), &written, nullptr);
    SetLastError(failure);
    return false;
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
