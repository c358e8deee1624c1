// Pipes: a pair in this process, standard input and output, those of a child, and local sockets, which are
// named pipes here.
#include "platform/windows/HandleStream.h"
#include "platform/windows/UserIdentity.h"
#include "platform/windows/Win32.h"

#include <io.h>

#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

namespace fodr::platform {

namespace {

constexpr DWORD kPipeBuffer = 1 << 18;
constexpr size_t kRelayBuffer = 1 << 18;

class PipeEnd final : public StreamEnd {
public:
    PipeEnd(OwnedHandle handle, bool server) : pipe(std::move(handle)), peerIsServer(server) {}

    DWORD StartRead(std::span<std::byte> buffer, OVERLAPPED *overlapped) override
    {
        return Outcome(
            ReadFile(pipe.Get(), buffer.data(), static_cast<DWORD>(buffer.size()), nullptr, overlapped));
    }
    DWORD StartWrite(ByteView block, OVERLAPPED *overlapped) override
    {
        return Outcome(
            WriteFile(pipe.Get(), block.data(), static_cast<DWORD>(block.size()), nullptr, overlapped));
    }
    DWORD Finish(OVERLAPPED *overlapped, DWORD *moved) override
    {
        return Outcome(GetOverlappedResult(pipe.Get(), overlapped, moved, TRUE));
    }
    void Cancel(OVERLAPPED *overlapped) override { CancelIoEx(pipe.Get(), overlapped); }
    bool EndSending() override { return true; }
    bool EndsWithNothing() const override { return false; }

    bool PeerIsThisUser() const override
    {
        ULONG id = 0;
        if (!(peerIsServer ? GetNamedPipeServerProcessId(pipe.Get(), &id)
                           : GetNamedPipeClientProcessId(pipe.Get(), &id)))
            return false;
        const OwnedHandle process(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, id));
        if (!process)
            return false;
        const std::wstring user = UserOfProcess(process.Get());
        return !user.empty() && user == UserOfProcess(GetCurrentProcess());
    }

private:
    static DWORD Outcome(BOOL succeeded) { return succeeded ? ERROR_SUCCESS : GetLastError(); }

    const OwnedHandle pipe;
    const bool peerIsServer;
};

// Copies until either side ends. The handles don't take overlapped I/O, so that a thread has to wait in them.
void RelayToHandle(ByteStream &from, HANDLE to)
{
    std::vector<std::byte> buffer(kRelayBuffer);
    for (;;) {
        const ptrdiff_t got = from.Read(buffer, ByteStream::kNoTimeout);
        for (size_t done = 0; got > 0 && done < static_cast<size_t>(got);) {
            DWORD written = 0;
            const size_t left = static_cast<size_t>(got) - done;
            if (!WriteFile(to, buffer.data() + done, static_cast<DWORD>(left), &written, nullptr))
                return;
            done += written;
        }
        if (got <= 0)
            return;
    }
}

void RelayFromHandle(HANDLE from, ByteStream &to)
{
    std::vector<std::byte> buffer(kRelayBuffer);
    for (;;) {
        DWORD got = 0;
        if (!ReadFile(from, buffer.data(), static_cast<DWORD>(buffer.size()), &got, nullptr) || got == 0)
            return;
        const ByteView block(buffer.data(), got);
        if (!to.Write({&block, 1}))
            return;
    }
}

// Standard input and output of this process. Two threads move the bytes; the one that reads may wait for ever
// and is left to the end of the process.
class StandardStream final : public ByteStream {
public:
    StandardStream(HANDLE in, HANDLE out, std::unique_ptr<ByteStream> readSide,
                   std::shared_ptr<ByteStream> readFeed, std::unique_ptr<ByteStream> writeSide,
                   std::unique_ptr<ByteStream> writeDrain)
        : reading(std::move(readSide)), writing(std::move(writeSide)),
          drain([out, from = std::shared_ptr<ByteStream>(std::move(writeDrain))] {
              RelayToHandle(*from, out);
              from->Shutdown();
              CloseHandle(out);
          })
    {
        std::thread([in, feed = std::move(readFeed)] {
            RelayFromHandle(in, *feed);
            feed->Shutdown();
        }).detach();
    }
    ~StandardStream() override
    {
        Shutdown();
        drain.join(); // what was written still has to go out
    }

    ptrdiff_t Read(std::span<std::byte> buffer, int timeoutMS) override
    {
        return reading->Read(buffer, timeoutMS);
    }
    bool Write(std::span<const ByteView> blocks) override { return writing->Write(blocks); }
    void Shutdown() override
    {
        reading->Shutdown();
        writing->Shutdown();
    }

private:
    const std::unique_ptr<ByteStream> reading;
    const std::unique_ptr<ByteStream> writing;
    std::thread drain;
};

} // namespace

std::unique_ptr<StreamEnd> MakePipeEnd(OwnedHandle pipe, bool peerIsServer)
{
    return pipe ? std::make_unique<PipeEnd>(std::move(pipe), peerIsServer) : nullptr;
}

bool MakePipe(PipeUse use, bool theirsIsInherited, OwnedHandle *ours, OwnedHandle *theirs)
{
    static std::atomic<uint64_t> counter{0};
    const std::wstring name = L"\\\\.\\pipe\\fodr-" + std::to_wstring(GetCurrentProcessId()) + L'-' +
                              std::to_wstring(GetTickCount64()) + L'-' + std::to_wstring(++counter);
    const DWORD direction = use == PipeUse::Duplex   ? PIPE_ACCESS_DUPLEX
                            : use == PipeUse::WeRead ? PIPE_ACCESS_INBOUND
                                                     : PIPE_ACCESS_OUTBOUND;
    const DWORD access = use == PipeUse::Duplex   ? GENERIC_READ | GENERIC_WRITE
                         : use == PipeUse::WeRead ? GENERIC_WRITE
                                                  : GENERIC_READ;
    ThisUserOnly security;
    SECURITY_ATTRIBUTES *forUs = security.Attributes();
    if (!forUs)
        return false;
    *ours = OwnedHandle(
        CreateNamedPipeW(name.c_str(), direction | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
                         PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS, 1,
                         kPipeBuffer, kPipeBuffer, 0, forUs));
    if (!*ours)
        return false;
    SECURITY_ATTRIBUTES attributes{sizeof(attributes), nullptr, theirsIsInherited};
    *theirs = OwnedHandle(CreateFileW(name.c_str(), access | FILE_WRITE_ATTRIBUTES | FILE_READ_ATTRIBUTES, 0,
                                      &attributes, OPEN_EXISTING,
                                      theirsIsInherited ? 0 : FILE_FLAG_OVERLAPPED, nullptr));
    return static_cast<bool>(*theirs);
}

std::pair<std::unique_ptr<ByteStream>, std::unique_ptr<ByteStream>> MakeStreamPair()
{
    OwnedHandle one;
    OwnedHandle other;
    if (!MakePipe(PipeUse::Duplex, false, &one, &other))
        return {};
    return {std::make_unique<HandleStream>(MakePipeEnd(std::move(one), false), nullptr),
            std::make_unique<HandleStream>(MakePipeEnd(std::move(other), true), nullptr)};
}

std::unique_ptr<ByteStream> OpenStandardStream(std::string *error)
{
    const HANDLE self = GetCurrentProcess();
    HANDLE in = nullptr;
    HANDLE out = nullptr;
    if (!DuplicateHandle(self, GetStdHandle(STD_INPUT_HANDLE), self, &in, 0, FALSE, DUPLICATE_SAME_ACCESS) ||
        !DuplicateHandle(self, GetStdHandle(STD_OUTPUT_HANDLE), self, &out, 0, FALSE, DUPLICATE_SAME_ACCESS))
        return FailWith(error, GetLastError());
    auto [readSide, readFeed] = MakeStreamPair();
    auto [writeSide, writeDrain] = MakeStreamPair();
    if (!readSide || !writeSide)
        return FailWith(error, GetLastError());
    // A stray print must not get between the frames.
    _dup2(_fileno(stderr), _fileno(stdout));
    return std::make_unique<StandardStream>(in, out, std::move(readSide), std::move(readFeed),
                                            std::move(writeSide), std::move(writeDrain));
}

} // namespace fodr::platform
