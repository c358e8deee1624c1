#include "fileservice/Share.h"

#include "WholeFile.h"

#include <atomic>
#include <cstring>
#include <random>

namespace fodr::test {

using namespace nt;

bool RecordingChannel::WriteChannel(RdpdrStream *packet)
{
    Completion completion(Bytes(packet->Base(), packet->Base() + packet->Size()));
    std::lock_guard held(mutex);
    EXPECT_TRUE(completions.emplace(completion.Fixed().CompletionId, completion).second) << "answered twice";
    arrived.notify_all();
    return true;
}

Completion RecordingChannel::Take(uint32_t completionId)
{
    std::unique_lock held(mutex);
    arrived.wait(held, [&] { return completions.contains(completionId); });
    Completion completion = completions[completionId];
    completions.erase(completionId);
    return completion;
}

bool RecordingChannel::IsAnswered(uint32_t completionId)
{
    std::lock_guard held(mutex);
    return completions.contains(completionId);
}

size_t RecordingChannel::Untaken()
{
    std::lock_guard held(mutex);
    return completions.size();
}

NTSTATUS WatchedFileSystem::RedirectedCloseFile(uint32_t fileId)
{
    if (closeFailure)
        return *std::exchange(closeFailure, std::nullopt);
    return FileSystemImpl::RedirectedCloseFile(fileId);
}

NTSTATUS WatchedFileSystem::RedirectedCancelAllIo(uint32_t fileId)
{
    if (cancelFailure)
        return *std::exchange(cancelFailure, std::nullopt);
    NTSTATUS status = FileSystemImpl::RedirectedCancelAllIo(fileId);
    std::lock_guard held(mutex);
    ++cancels;
    changed.notify_all();
    return status;
}

NTSTATUS WatchedFileSystem::RedirectedNotifyChangeDirectoryFile(uint32_t fileId, IO_STATUS_BLOCK *ioStatus,
                                                                uint32_t completionFilter, bool watchTree)
{
    BeginBlockingCall();
    return FileSystemImpl::RedirectedNotifyChangeDirectoryFile(fileId, ioStatus, completionFilter, watchTree);
}

NTSTATUS WatchedFileSystem::RedirectedLockFile(uint32_t fileId, IO_STATUS_BLOCK *ioStatus,
                                               const LARGE_INTEGER &offset, const LARGE_INTEGER &length,
                                               bool failImmediately, bool exclusive)
{
    if (!failImmediately)
        BeginBlockingCall();
    return FileSystemImpl::RedirectedLockFile(fileId, ioStatus, offset, length, failImmediately, exclusive);
}

void WatchedFileSystem::BeginBlockingCall()
{
    std::unique_lock held(mutex);
    ++blockingCalls;
    changed.notify_all();
    if (holdUntilCancelled)
        changed.wait(held, [&] { return cancels > 0; });
}

void WatchedFileSystem::AwaitBlockingCalls(int count)
{
    std::unique_lock held(mutex);
    changed.wait(held, [&] { return blockingCalls >= count; });
}

std::string WireText(std::u16string_view text)
{
    std::string bytes(reinterpret_cast<const char *>(text.data()), text.size() * 2);
    return bytes.append(2, '\0');
}

Share::Share(const std::function<void(RedirectedDeviceSettings &)> &change)
{
    static std::atomic<unsigned> made{0};
    folder = std::filesystem::temp_directory_path() /
             ("fodr-share-" + std::to_string(std::random_device()()) + "-" + std::to_string(++made));
    std::filesystem::create_directories(folder);
    settings.channel = &channel;
    settings.deviceId = kDeviceId;
    settings.path = "\\??\\" + folder.string();
    settings.sharePath = folder.string();
    if (change)
        change(settings);
    auto ownFileSystem = std::make_unique<WatchedFileSystem>(settings.path);
    fileSystem = ownFileSystem.get();
    device = RCPtr<RedirectedDevice>(new RedirectedDevice(std::move(ownFileSystem), settings));
}

Share::~Share()
{
    device = nullptr;
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

File Share::Create(std::u16string_view path, CreateArguments arguments)
{
    std::string wirePath = WireText(path);
    DR_CREATE_REQ create{arguments.access,
                         0,
                         FILE_ATTRIBUTE_NORMAL,
                         arguments.share,
                         arguments.disposition,
                         arguments.options,
                         static_cast<uint32_t>(wirePath.size())};
    return File(*this, Ask(Request(0, IRP_MJ_CREATE, 0, create, wirePath)));
}

bool Share::Serve(const Bytes &packet)
{
    RdpdrStreamPtr stream(RdpdrStream::Create(packet.size()));
    stream->Write(packet.data(), packet.size());
    stream->SetPosition(0);
    return device->OnIoRequest(stream.get());
}

Completion Share::Ask(const Bytes &packet)
{
    uint32_t completionId = LoadLittle<uint32_t>(packet.data() + 12);
    bool written = Serve(packet);
    EXPECT_TRUE(written);
    EXPECT_TRUE(channel.IsAnswered(completionId));
    if (!written || !channel.IsAnswered(completionId))
        return Completion();
    Completion completion = channel.Take(completionId);
    EXPECT_EQ(completion.Fixed().DeviceId, device->GetDeviceId()); // never that of the request
    EXPECT_GE(completion.Size(), kMinCompletionSize);
    return completion;
}

void Share::Put(const std::string &name, std::string_view contents)
{
    std::ofstream(folder / name, std::ios::binary) << contents;
}

std::string Share::Contents(const std::string &name)
{
    return ReadWholeFile(folder / name);
}

Completion File::Read(uint64_t offset, uint32_t length)
{
    return share.Ask(share.Request(Id(), IRP_MJ_READ, 0, DR_READ_REQ{length, offset}));
}

Completion File::Write(uint64_t offset, std::string_view data)
{
    DR_WRITE_REQ write{static_cast<uint32_t>(data.size()), offset};
    return share.Ask(share.Request(Id(), IRP_MJ_WRITE, 0, write, data));
}

Completion File::Query(uint32_t infoClass)
{
    return share.Ask(
        share.Request(Id(), IRP_MJ_QUERY_INFORMATION, 0, DR_DRIVE_QUERY_INFORMATION_REQ{infoClass}));
}

Completion File::QueryVolume(uint32_t infoClass)
{
    return share.Ask(
        share.Request(Id(), IRP_MJ_QUERY_VOLUME_INFORMATION, 0, DR_DRIVE_QUERY_INFORMATION_REQ{infoClass}));
}

Completion File::Set(uint32_t infoClass, std::string_view buffer)
{
    DR_DRIVE_SET_INFORMATION_REQ set{infoClass, static_cast<uint32_t>(buffer.size())};
    return share.Ask(share.Request(Id(), IRP_MJ_SET_INFORMATION, 0, set, buffer));
}

Completion File::SetVolume(uint32_t infoClass, std::string_view buffer)
{
    DR_DRIVE_SET_INFORMATION_REQ set{infoClass, static_cast<uint32_t>(buffer.size())};
    return share.Ask(share.Request(Id(), IRP_MJ_SET_VOLUME_INFORMATION, 0, set, buffer));
}

Completion File::List(uint32_t infoClass, bool restart, std::u16string_view path)
{
    std::string wirePath = path.empty() ? std::string() : WireText(path);
    DR_DRIVE_QUERY_DIRECTORY_REQ query{infoClass, restart, static_cast<uint32_t>(wirePath.size())};
    return share.Ask(share.Request(Id(), IRP_MJ_DIRECTORY_CONTROL, IRP_MN_QUERY_DIRECTORY, query, wirePath));
}

Completion File::Control(uint32_t code, std::string_view input, uint32_t outputLength)
{
    DR_CONTROL_REQ control{outputLength, static_cast<uint32_t>(input.size()), code};
    return share.Ask(share.Request(Id(), IRP_MJ_DEVICE_CONTROL, 0, control, input));
}

Completion File::Lock(uint32_t operation, std::vector<LockRange> ranges, bool failImmediately)
{
    std::string list(ranges.size() * kWireSize<RDP_LOCK_INFO>, '\0');
    for (size_t i = 0; i < ranges.size(); ++i)
        StoreRecord(RDP_LOCK_INFO{ranges[i].length, ranges[i].offset},
                    reinterpret_cast<uint8_t *>(list.data()) + i * kWireSize<RDP_LOCK_INFO>);
    DR_DRIVE_LOCK_REQ lock{operation, failImmediately ? kLockFailImmediately : 0,
                           static_cast<uint32_t>(ranges.size())};
    return share.Ask(share.Request(Id(), IRP_MJ_LOCK_CONTROL, 0, lock, list));
}

Completion File::Close()
{
    return share.Ask(share.Request(Id(), IRP_MJ_CLOSE, 0, DR_READ_REQ{}));
}

} // namespace fodr::test
