// A share over a fresh folder, driven as an agent drives it: request packets in, completions out.
//
//     File file = share.Create(u"\\a.txt", {.disposition = FILE_OPEN_IF});
//     EXPECT_EQ(file.Write(0, "hello").Length(), 5u);
//     EXPECT_EQ(file.Read(0, 5).Data(), "hello");
#pragma once

#include "Mailbox.h"
#include "WholeFile.h"
#include "WireExamples.h"
#include "drives/FodrDeviceFilterPolicy.h"
#include "fileservice/FileSystemImpl.h"
#include "fileservice/RedirectedDevice.h"
#include "platform/Nt.h"
#include "platform/NtRecords.h"
#include "rdpdr/wire/RdpdrRecords.h"
#include "rdpdr/wire/RdpdrStream.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

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
        bool isThere = kCompletionData + dataOffset + sizeof(T) <= bytes.size();
        EXPECT_TRUE(isThere);
        return isThere ? LoadLittle<T>(bytes.data() + kCompletionData + dataOffset) : T{};
    }

    Bytes bytes = Bytes(kMinCompletionSize);
};

// Keeps completions by their id.
class RecordingChannel : public IRdpdrChannel {
public:
    bool NotifyODPObserver(const char *, const char *) override { return true; }
    bool WriteChannel(RdpdrStream *packet) override
    {
        Completion completion(Bytes(packet->Base(), packet->Base() + packet->Size()));
        std::lock_guard held(mutex);
        EXPECT_TRUE(completions.emplace(completion.Fixed().CompletionId, completion).second) << "once more";
        return true;
    }
    // Gives the completion away; an empty one if it didn't come.
    Completion Take(uint32_t completionId)
    {
        std::lock_guard held(mutex);
        auto taken = completions.extract(completionId);
        return taken ? taken.mapped() : Completion();
    }
    size_t Untaken()
    {
        std::lock_guard held(mutex);
        return completions.size();
    }

private:
    std::mutex mutex;
    std::map<uint32_t, Completion> completions;
};

// The real file system, telling when a call that may block begins, and failing where it is told to.
class WatchedFileSystem : public FileSystemImpl {
public:
    WatchedFileSystem(const std::string &root, const nt::ShareRules &rules) : FileSystemImpl(root)
    {
        if (rules.readOnly)
            KeepRoot(root, rules);
    }

    nt::NTSTATUS RedirectedCloseFile(uint32_t fileId) override
    {
        auto failure = std::exchange(closeFailure, std::nullopt);
        return failure ? *failure : FileSystemImpl::RedirectedCloseFile(fileId);
    }
    nt::NTSTATUS RedirectedCancelAllIo(uint32_t fileId) override
    {
        if (auto failure = std::exchange(cancelFailure, std::nullopt))
            return *failure;
        nt::NTSTATUS status = FileSystemImpl::RedirectedCancelAllIo(fileId);
        cancelled.Set();
        return status;
    }
    nt::NTSTATUS RedirectedNotifyChangeDirectoryFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                                     uint32_t filter, bool watchTree) override
    {
        if (lacksMemory)
            throw std::bad_alloc();
        blocking.Set();
        if (holdUntilCancelled)
            cancelled.Wait();
        return FileSystemImpl::RedirectedNotifyChangeDirectoryFile(fileId, ioStatus, filter, watchTree);
    }
    nt::NTSTATUS RedirectedLockFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                    const nt::LARGE_INTEGER &offset, const nt::LARGE_INTEGER &length,
                                    bool failImmediately, bool exclusive) override
    {
        if (!failImmediately)
            blocking.Set();
        return FileSystemImpl::RedirectedLockFile(fileId, ioStatus, offset, length, failImmediately,
                                                  exclusive);
    }

    std::optional<nt::NTSTATUS> closeFailure, cancelFailure; // what the next call gives
    bool lacksMemory = false;                                // for a notification
    bool holdUntilCancelled = false; // holds a notification before it is made, until a cancel has gone by
    Signal blocking, cancelled;
};

// Refuses every device and counts how often it is asked.
class RefusingFilter : public IDeviceFilter {
public:
    bool HasDeviceFilter() override { return inForce; }
    bool IsAllowedByDeviceFilter(const std::string &) override { return ++asked == 0; }
    bool inForce = true;
    int asked = 0;
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

class File;

class Share {
public:
    // `change` alters what the device is made with.
    explicit Share(const std::function<void(RedirectedDeviceSettings &)> &change = {},
                   const nt::ShareRules &rules = {});
    ~Share();

    File Create(std::u16string_view path, CreateArguments arguments = {});
    // What it gives; what it opens stays open.
    nt::NTSTATUS Open(std::u16string_view path, CreateArguments arguments = {});
    // Makes a file with these contents and opens it.
    File Made(const std::string &name, std::string_view contents = {});
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

    void Put(const std::string &name, std::string_view contents)
    {
        std::ofstream(folder / name, std::ios::binary) << contents;
    }
    std::string Contents(const std::string &name) { return ReadWholeFile(folder / name); }
    bool Exists(const std::string &name) { return std::filesystem::exists(folder / name); }

    RecordingChannel channel;
    std::filesystem::path folder;
    RedirectedDeviceSettings settings; // that the device was made with
    WatchedFileSystem *fileSystem;     // the device's
    RCPtr<RedirectedDevice> device;
    std::atomic<uint32_t> lastCompletionId{100};
};

// Where a class of directory entries has its name, and what an answer looks like.
struct ListingShape {
    uint32_t infoClass;
    uint32_t nameLength, name;
    bool isMany = false; // native entries, each but the last filled up to 8 bytes; else one
};
// Of every class that is listed; what is many only with a share that has many.
std::vector<ListingShape> ListingShapes(bool multiEntry);
constexpr ListingShape kFullShape = {nt::FileFullDirectoryInformation, 60, 68};
using Names = std::vector<std::string>;
// The names of a chain of entries, which must fill the completion.
Names NamesOf(const Completion &listing, const ListingShape &shape);

// An open file of a share; closed by Close alone. Safe from any thread.
class File {
public:
    File(Share &ofShare, Completion completion) : created(std::move(completion)), share(ofShare) {}

    uint32_t Id() const { return created.FileId(); }
    template <wire::Record Body>
    Completion Ask(uint32_t major, const Body &body, std::string_view payload = {}, uint32_t minor = 0)
    {
        return share.Ask(share.Request(Id(), major, minor, body, payload));
    }
    Completion Read(uint64_t offset, uint32_t length)
    {
        return Ask(IRP_MJ_READ, DR_READ_REQ{length, offset});
    }
    Completion Write(uint64_t offset, std::string_view data)
    {
        return Ask(IRP_MJ_WRITE, DR_WRITE_REQ{SizeOf(data), offset}, data);
    }
    Completion Query(uint32_t infoClass)
    {
        return Ask(IRP_MJ_QUERY_INFORMATION, DR_DRIVE_QUERY_INFORMATION_REQ{infoClass});
    }
    Completion Set(uint32_t infoClass, std::string_view buffer)
    {
        return Ask(IRP_MJ_SET_INFORMATION, DR_DRIVE_SET_INFORMATION_REQ{infoClass, SizeOf(buffer)}, buffer);
    }
    Completion Rename(std::u16string_view target, uint8_t rootDirectory = 0);
    // Into an open directory, as rename(2) does.
    Completion RenameInto(uint64_t directoryId, std::u16string_view leaf, uint32_t flags = 3,
                          uint32_t infoClass = nt::FileRenameInformationEx);
    Completion LinkInto(uint64_t directoryId, std::u16string_view leaf) // the same form
    {
        return RenameInto(directoryId, leaf, 0, nt::FileLinkInformation);
    }
    // No path is given where it is empty.
    Completion List(uint32_t infoClass, bool restart, std::u16string_view path = {});
    // The names of all answers, each of which must be as full as the shape says.
    Names ListAll(const ListingShape &shape, std::u16string_view path);
    Completion Control(uint32_t code, std::string_view input, uint32_t outputLength)
    {
        return Ask(IRP_MJ_DEVICE_CONTROL, DR_CONTROL_REQ{outputLength, SizeOf(input), code}, input);
    }
    Completion Lock(uint32_t operation, std::vector<LockRange> ranges, bool failImmediately = true);
    Completion Close() { return Ask(IRP_MJ_CLOSE, DR_READ_REQ{}); }

    Completion created;

private:
    static uint32_t SizeOf(std::string_view bytes) { return static_cast<uint32_t>(bytes.size()); }

    Share &share;
};

// The bytes of a UTF-16 text with its terminator.
std::string WireText(std::u16string_view text);
// The first bytes of a number as it stands on the wire.
std::string Little(uint64_t value, size_t size = 8);

} // namespace fodr::test
