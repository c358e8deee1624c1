// The file calls as a coroutine awaits them. Arguments outlive the wait.
#pragma once

#include "agent/Coroutine.h"
#include "agent/fuse/Node.h"
#include "platform/NtRecords.h"

#include <array>

namespace fodr::agent {

inline auto CreateFile(RemoteShare &share, const RemoteShare::CreateCall &call, const std::u16string &path)
{
    return AwaitIo([&](IoHandler done) { share.Create(call, path, std::move(done)); });
}
inline auto CloseFile(RemoteShare &share, uint32_t fileId)
{
    return AwaitIo([&share, fileId](IoHandler done) { share.Close(fileId, std::move(done)); });
}
inline auto QueryFile(RemoteShare &share, uint32_t fileId, uint32_t informationClass)
{
    return AwaitIo([&share, fileId, informationClass](IoHandler done) {
        share.QueryInformation(fileId, informationClass, std::move(done));
    });
}
inline auto QueryVolumeOf(RemoteShare &share, uint32_t fileId, uint32_t informationClass)
{
    return AwaitIo([&share, fileId, informationClass](IoHandler done) {
        share.QueryVolume(fileId, informationClass, std::move(done));
    });
}
inline auto SetFile(RemoteShare &share, uint32_t fileId, uint32_t informationClass, ByteSpan record)
{
    return AwaitIo([&share, fileId, informationClass, record](IoHandler done) {
        share.SetInformation(fileId, informationClass, record, std::move(done));
    });
}
inline auto SetEndOfFile(RemoteShare &share, uint32_t fileId, uint64_t size)
{
    std::array<uint8_t, sizeof(size)> record;
    StoreLittle(record.data(), size);
    return AwaitIo([&share, fileId, record](IoHandler done) {
        share.SetInformation(fileId, nt::FileEndOfFileInformation, record, std::move(done));
    });
}
inline auto RenameFile(RemoteShare &share, uint32_t fileId, const std::u16string &target, bool replace)
{
    return AwaitIo([&share, fileId, &target, replace](IoHandler done) {
        share.Rename(fileId, target, replace, std::move(done));
    });
}
inline auto RenameFileInto(RemoteShare &share, uint32_t fileId, uint32_t directoryId,
                           const std::u16string &name, bool replace)
{
    return AwaitIo([&share, fileId, directoryId, &name, replace](IoHandler done) {
        share.RenameInto(fileId, directoryId, name, replace, std::move(done));
    });
}
inline auto LinkFileInto(RemoteShare &share, uint32_t fileId, uint32_t directoryId,
                         const std::u16string &name)
{
    return AwaitIo([&share, fileId, directoryId, &name](IoHandler done) {
        share.LinkInto(fileId, directoryId, name, std::move(done));
    });
}
inline auto ExchangeFileWith(RemoteShare &share, uint32_t fileId, uint32_t directoryId,
                             const std::u16string &name)
{
    return AwaitIo([&share, fileId, directoryId, &name](IoHandler done) {
        share.ExchangeWith(fileId, directoryId, name, std::move(done));
    });
}
inline auto CopyFileRange(RemoteShare &share, uint32_t fileId, uint32_t sourceId,
                          const nt::FODR_RANGE_COPY &range)
{
    return AwaitIo([&share, fileId, sourceId, range](IoHandler done) {
        share.CopyRange(fileId, sourceId, range, std::move(done));
    });
}
inline auto DeleteFileAtOnce(RemoteShare &share, uint32_t fileId)
{
    return AwaitIo([&share, fileId](IoHandler done) { share.DeleteAtOnce(fileId, std::move(done)); });
}
inline auto DeleteFile(RemoteShare &share, uint32_t fileId)
{
    return AwaitIo([&share, fileId](IoHandler done) { share.Delete(fileId, std::move(done)); });
}
// The class of listings whose entries tell the most.
inline uint32_t ListingClassOf(const RemoteShare &share)
{
    return share.TellsIds() ? nt::FileBothDirectoryInformation : nt::FileFullDirectoryInformation;
}
inline auto SearchDirectory(RemoteShare &share, uint32_t fileId, const std::u16string &name)
{
    return AwaitIo([&share, fileId, &name](IoHandler done) {
        share.QueryDirectory(fileId, ListingClassOf(share), true, name, std::move(done));
    });
}
inline auto ControlFile(RemoteShare &share, uint32_t fileId, uint32_t code, uint32_t outputLength)
{
    return AwaitIo([&share, fileId, code, outputLength](IoHandler done) {
        share.DeviceControl(fileId, code, {}, outputLength, std::move(done));
    });
}
inline auto ControlFile(RemoteShare &share, uint32_t fileId, uint32_t code, ByteSpan input)
{
    return AwaitIo([&share, fileId, code, input](IoHandler done) {
        share.DeviceControl(fileId, code, input, 0, std::move(done));
    });
}
inline auto ControlFile(RemoteShare &share, uint32_t fileId, uint32_t code, ByteSpan input,
                        uint32_t outputLength)
{
    return AwaitIo([&share, fileId, code, input, outputLength](IoHandler done) {
        share.DeviceControl(fileId, code, input, outputLength, std::move(done));
    });
}
// What an open file is: of hosts that tell it, with its id.
inline uint32_t FactsClassOf(const RemoteShare &share)
{
    return share.TellsIds() ? nt::FileStatLxInformation : nt::FileNetworkOpenInformation;
}
inline nt::NTSTATUS TakeFacts(const RemoteShare &share, const IoResult &result, FileFacts *facts)
{
    if (result.Failed())
        return result.status;
    const bool whole = share.TellsIds() ? ReadStatInformation(result.data, facts)
                                        : ReadNetworkOpenInformation(result.data, facts);
    if (!share.HasIds())
        facts->DropId();
    return whole ? nt::STATUS_SUCCESS : STATUS_INVALID_NETWORK_RESPONSE;
}
inline Task<nt::NTSTATUS> QueryFacts(RemoteShare &share, uint32_t fileId, FileFacts *facts)
{
    const IoResult result = co_await QueryFile(share, fileId, FactsClassOf(share));
    co_return TakeFacts(share, result, facts);
}

// Until nothing of the file is on its way to the host; `writes` may be null.
inline auto AwaitWrites(std::shared_ptr<WriteBehind> writes)
{
    return AwaitCall([writes = std::move(writes)](InlineFunction<void()> done) {
        if (writes)
            writes->WhenDone(std::move(done));
        else
            done();
    });
}

// The facts of an open file, asked for while something else is asked of it.
class FactsUnderway {
public:
    static std::shared_ptr<FactsUnderway> Ask(RemoteShare &share, uint32_t fileId)
    {
        auto asked = std::make_shared<FactsUnderway>();
        share.QueryInformation(fileId, FactsClassOf(share), [asked, &share](const IoResult &result) {
            InlineFunction<void()> ready;
            {
                const MutexLock held(asked->lock);
                asked->status = TakeFacts(share, result, &asked->facts);
                asked->arrived = true;
                ready = std::move(asked->waiter);
            }
            if (ready)
                ready();
        });
        return asked;
    }
    auto Arrival()
    {
        return AwaitCall([this](InlineFunction<void()> done) {
            {
                const MutexLock held(lock);
                if (!arrived) {
                    waiter = std::move(done);
                    return;
                }
            }
            done();
        });
    }
    // Once it has arrived.
    nt::NTSTATUS status = nt::STATUS_SUCCESS;
    FileFacts facts;

private:
    Mutex lock;
    bool arrived GUARDED_BY(lock) = false;
    InlineFunction<void()> waiter GUARDED_BY(lock);
};

// A way through a folder's gate, for as long as this lives.
class GateHold {
public:
    GateHold(NodePtr folder, NameGate::Entry gateEntry) : node(std::move(folder)), entry(gateEntry) {}
    ~GateHold()
    {
        if (node)
            node->gate.Leave(entry);
    }
    GateHold(GateHold &&other) noexcept : node(std::move(other.node)), entry(other.entry) {}
    GateHold &operator=(GateHold &&) = delete;

private:
    NodePtr node;
    NameGate::Entry entry;
};

inline Task<GateHold> PassGate(NodePtr folder, NameGate::Entry entry)
{
    if (!folder->gate.TryEnter(entry))
        co_await AwaitCall([&](InlineFunction<void()> done) { folder->gate.Enter(entry, std::move(done)); });
    co_return GateHold(folder, entry);
}

} // namespace fodr::agent
