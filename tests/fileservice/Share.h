// A share over a fresh folder, driven as an agent drives it: request packets in, completions out.
//
//     File file = share.Create(u"\\a.txt", {.disposition = FILE_OPEN_IF});
//     EXPECT_EQ(file.Write(0, "hello").Length(), 5u);
//     EXPECT_EQ(file.Read(0, 5).Data(), "hello");
#pragma once

#include "WireExamples.h"
#include "fileservice/FileSystemImpl.h"
#include "fileservice/RedirectedDevice.h"
#include "platform/Nt.h"
#include "platform/NtRecords.h"
#include "rdpdr/wire/IRdpdrChannel.h"
#include "rdpdr/wire/RdpdrRecords.h"

#include <algorithm>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace fodr::test {

constexpr uint32_t kDeviceId = 0xFFFF;

// One completion packet.
class Completion {
public:
    Completion() = default;
    explicit Completion(Bytes packet) : bytes(std::move(packet)) {}

    size_t Size() const { return bytes.size(); }
    DR_DEVICE_IOCOMPLETION Fixed() const { return LoadRecord<DR_DEVICE_IOCOMPLETION>(bytes.data() + 4); }
    nt::NTSTATUS Status() const { return static_cast<nt::NTSTATUS>(Fixed().IoStatus); }
    uint32_t FileId() const { return LoadLittle<uint32_t>(bytes.data() + kCompletionBody); }
    uint32_t Length() const { return FileId(); }
    uint8_t Information() const { return bytes[20]; }
    // Everything behind the length field.
    std::string Data() const { return std::string(bytes.begin() + kCompletionData, bytes.end()); }
    template <class T> T At(size_t dataOffset) const
    {
        return LoadLittle<T>(bytes.data() + kCompletionData + dataOffset);
    }

private:
    Bytes bytes = Bytes(kMinCompletionSize);
};

// Keeps completions by their id.
class RecordingChannel : public IRdpdrChannel {
public:
    bool NotifyODPObserver(const char *, const char *) override { return true; }
    bool WriteChannel(RdpdrStream *packet) override;

    // Waits for the completion and takes it.
    Completion Take(uint32_t completionId);
    bool IsAnswered(uint32_t completionId);
    size_t Untaken();

private:
    std::mutex mutex;
    std::condition_variable arrived;
    std::map<uint32_t, Completion> completions;
};

// The real file system, telling when a call that may block begins, and failing where it is told to.
class WatchedFileSystem : public FileSystemImpl {
public:
    explicit WatchedFileSystem(const std::string &root) : FileSystemImpl(root) {}

    nt::NTSTATUS RedirectedCloseFile(uint32_t fileId) override;
    nt::NTSTATUS RedirectedCancelAllIo(uint32_t fileId) override;
    nt::NTSTATUS RedirectedNotifyChangeDirectoryFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                                     uint32_t completionFilter, bool watchTree) override;
    nt::NTSTATUS RedirectedLockFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                    const nt::LARGE_INTEGER &offset, const nt::LARGE_INTEGER &length,
                                    bool failImmediately, bool exclusive) override;

    void AwaitBlockingCalls(int count);
    std::optional<nt::NTSTATUS> closeFailure;  // what the next close gives
    std::optional<nt::NTSTATUS> cancelFailure; // what the next cancel gives
    // Holds the next blocking call before it is made, until a cancel has gone by.
    bool holdUntilCancelled = false;

private:
    void BeginBlockingCall();

    std::mutex mutex;
    std::condition_variable changed;
    int blockingCalls = 0;
    int cancels = 0;
};

struct CreateArguments {
    uint32_t access = nt::GENERIC_READ | nt::GENERIC_WRITE | nt::DELETE_ACCESS;
    uint32_t share = nt::FILE_SHARE_READ | nt::FILE_SHARE_WRITE | nt::FILE_SHARE_DELETE;
    uint32_t disposition = nt::FILE_OPEN;
    uint32_t options = 0;
};

struct LockRange {
    uint64_t offset, length;
};

class Share;

// An open file of a share; closed by Close alone.
class File {
public:
    File(Share &ofShare, Completion completion) : created(std::move(completion)), share(ofShare) {}

    uint32_t Id() const { return created.FileId(); }
    Completion Read(uint64_t offset, uint32_t length);
    Completion Write(uint64_t offset, std::string_view data);
    Completion Query(uint32_t infoClass);
    Completion QueryVolume(uint32_t infoClass);
    Completion Set(uint32_t infoClass, std::string_view buffer);
    Completion SetVolume(uint32_t infoClass, std::string_view buffer);
    Completion List(uint32_t infoClass, bool restart, std::u16string_view path = {});
    Completion Control(uint32_t code, std::string_view input, uint32_t outputLength);
    Completion Lock(uint32_t operation, std::vector<LockRange> ranges, bool failImmediately = true);
    Completion Close();

    Completion created;

private:
    Share &share;
};

class Share {
public:
    // `change` alters what the device is made with.
    explicit Share(const std::function<void(RedirectedDeviceSettings &)> &change = {});
    ~Share();

    File Create(std::u16string_view path, CreateArguments arguments = {});
    // Serves a packet on this thread. The packet lies in a block of its own size.
    bool Serve(const Bytes &packet);
    // The only completion that the request gets; empty, with a failure, when there is none.
    Completion Ask(const Bytes &packet);
    // A request packet with the next completion id.
    template <wire::Record Body>
    Bytes Request(uint32_t fileId, uint32_t major, uint32_t minor, const Body &body,
                  std::string_view payload = {})
    {
        DR_DEVICE_IOREQUEST request{0x1234, fileId, ++lastCompletionId, major, minor, {}};
        request.SetBody(body);
        Bytes packet(kWireEnd<DR_DEVICE_IOREQUEST> + payload.size());
        StorePacket(request, packet.data());
        std::copy(payload.begin(), payload.end(), packet.begin() + kWireEnd<DR_DEVICE_IOREQUEST>);
        return packet;
    }

    void Put(const std::string &name, std::string_view contents);
    std::string Contents(const std::string &name);
    bool Exists(const std::string &name) { return std::filesystem::exists(folder / name); }

    RecordingChannel channel;
    std::filesystem::path folder;
    RedirectedDeviceSettings settings; // that the device was made with
    WatchedFileSystem *fileSystem;     // the device's
    RCPtr<RedirectedDevice> device;
    uint32_t lastCompletionId = 100;
};

// The bytes of a UTF-16 text with its terminator.
std::string WireText(std::u16string_view text);

} // namespace fodr::test
