// The file calls of one share, each one request. Any thread. A call with a handler returns as soon as the
// request is sent, and hands the outcome to the handler (see IoHandler). A call without one is for a
// coroutine to await, which sends it. Paths are UTF-16, begin with a backslash and count from the share's
// root. Bytes, paths and records are borrowed for the call, or for the wait.
#pragma once

#include "agent/Coroutine.h"
#include "agent/FileFacts.h"
#include "agent/RdpdrClient.h"
#include "platform/NtRecords.h"

#include <array>
#include <span>
#include <string_view>

namespace fodr::agent {

class RemoteShare : public std::enable_shared_from_this<RemoteShare> {
public:
    // Whose numbers files have: this side's, which outlive a connection, or those of the present connection's
    // wire.
    enum class FileNumbers { Lasting, OfConnection };
    // The client outlives the share.
    RemoteShare(RdpdrClient &rdpdrClient, const RemoteDevice &remoteDevice,
                FileNumbers fileNumbers = FileNumbers::Lasting)
        : client(rdpdrClient), device(remoteDevice), numbers(fileNumbers)
    {}
    const RemoteDevice &Device() const { return device; }

    // FODR_HOST_* of what the other side was asked for at the start; 0: nothing beyond what NT always had.
    void SetFeatures(uint32_t hostFeatures) { features = hostFeatures; }
    bool Has(uint32_t feature) const { return (features & feature) != 0; }
    // Whether one answer lists several entries.
    bool ListsSeveral() const { return client.ListsSeveral(); }
    LinkView LinksOfMount() const { return client.LinksOfMount(); }
    // Where links are followed, one folder can be in several places. So nothing goes by ids.
    FileIds Ids() const
    {
        if (!Has(nt::FODR_HOST_FILE_IDS))
            return FileIds::None;
        return LinksOfMount() == LinkView::Follow ? FileIds::Dropped : FileIds::Known;
    }
    bool HasIds() const { return Ids() == FileIds::Known; }
    bool TellsIds() const { return Ids() != FileIds::None; }

    // Whether the share outlives a connection. Then requests wait for the next one within their time, and
    // those that were under way are repeated where that does no harm: reads, queries, writes, sizes and
    // times, opens of what is there. Others fail with STATUS_CONNECTION_DISCONNECTED. A file is opened again
    // with the first request on it if it was given a way to that, and is refused with STATUS_FILE_INVALID
    // otherwise, or when it is another file by now.
    bool OutlivesConnections() const { return client.KeepsRequests(); }
    void Remember(uint32_t fileId, std::shared_ptr<IReopen> reopen)
    {
        client.Remember(fileId, std::move(reopen));
    }
    // Whether the connection that an open file's handle belongs to has ended.
    bool IsLost(uint32_t fileId);
    std::shared_ptr<IReopen> WayTo(uint32_t fileId) { return client.WayTo(fileId); } // null: there is none

    struct CreateCall {
        uint32_t desiredAccess = 0;
        uint32_t createDisposition = 0;
        uint32_t createOptions = 0;
        uint32_t fileAttributes = 0;
        uint32_t sharedAccess = 7; // read, write and delete
        uint64_t allocationSize = 0;
    };
    // Outcome: fileId and information.
    void Create(const CreateCall &call, std::u16string_view path, IoHandler handler);
    auto Create(const CreateCall &call, std::u16string_view path)
    {
        return AwaitIo([this, &call, path](IoHandler done) { Create(call, path, std::move(done)); });
    }
    void Close(uint32_t fileId, IoHandler handler);
    auto Close(uint32_t fileId)
    {
        return AwaitStatus([=, this](IoHandler done) { Close(fileId, std::move(done)); });
    }

    // Outcome: data, at most `length` bytes. At the end of the file STATUS_END_OF_FILE.
    void Read(uint32_t fileId, uint64_t offset, uint32_t length, IoHandler handler);
    auto Read(uint32_t fileId, uint64_t offset, uint32_t length)
    {
        return AwaitIo([=, this](IoHandler done) { Read(fileId, offset, length, std::move(done)); });
    }
    // At `kEndOfFile` the other side finds the end. Outcome: length, which may be less than given.
    static constexpr uint64_t kEndOfFile = UINT64_MAX;
    void Write(uint32_t fileId, uint64_t offset, ByteSpan bytes, IoHandler handler);
    auto Write(uint32_t fileId, uint64_t offset, ByteSpan bytes)
    {
        return AwaitIo([=, this](IoHandler done) { Write(fileId, offset, bytes, std::move(done)); });
    }

    // Outcome: data, the record as it is on the wire: FileBasicInformation is 36 bytes,
    // FileStandardInformation 22, and in FileFsVolumeInformation the label begins at 17.
    void QueryInformation(uint32_t fileId, uint32_t informationClass, IoHandler handler)
    {
        Query(IRP_MJ_QUERY_INFORMATION, fileId, informationClass, std::move(handler));
    }
    auto QueryInformation(uint32_t fileId, uint32_t informationClass)
    {
        return AwaitIo([=, this](IoHandler done) {
            Query(IRP_MJ_QUERY_INFORMATION, fileId, informationClass, std::move(done));
        });
    }
    auto QueryVolume(uint32_t fileId, uint32_t informationClass)
    {
        return AwaitIo([=, this](IoHandler done) {
            Query(IRP_MJ_QUERY_VOLUME_INFORMATION, fileId, informationClass, std::move(done));
        });
    }
    // What an open file is: of hosts that tell it, with its id.
    uint32_t FactsClass() const
    {
        return TellsIds() ? nt::FileStatLxInformation : nt::FileNetworkOpenInformation;
    }
    nt::NTSTATUS TakeFacts(const IoResult &result, FileFacts *facts) const;
    Task<nt::NTSTATUS> QueryFacts(uint32_t fileId, FileFacts *facts);

    // `record` is the wire form. Outcome: preRead, when it was asked for and came.
    void SetInformation(uint32_t fileId, uint32_t informationClass, ByteSpan record, IoHandler handler);
    auto SetInformation(uint32_t fileId, uint32_t informationClass, ByteSpan record)
    {
        return AwaitIo(
            [=, this](IoHandler done) { SetInformation(fileId, informationClass, record, std::move(done)); });
    }
    auto SetEndOfFile(uint32_t fileId, uint64_t size)
    {
        return AwaitStatus([=, this](IoHandler done) {
            SetNumber(fileId, nt::FileEndOfFileInformation, size, std::move(done));
        });
    }
    // The file goes when its last handle is closed.
    auto Delete(uint32_t fileId)
    {
        return AwaitStatus([=, this](IoHandler done) {
            SetNumber(fileId, nt::FileDispositionInformation, uint8_t{1}, std::move(done));
        });
    }
    // Of a host with FODR_HOST_POSIX_NAMES. The name that the file was opened under goes at once; those who
    // have the file open keep it.
    auto DeleteAtOnce(uint32_t fileId)
    {
        return AwaitStatus([=, this](IoHandler done) {
            SetNumber<uint32_t>(fileId, nt::FileDispositionInformationEx,
                                nt::FILE_DISPOSITION_DELETE | nt::FILE_DISPOSITION_POSIX_SEMANTICS |
                                    nt::FILE_DISPOSITION_IGNORE_READONLY_ATTRIBUTE,
                                std::move(done));
        });
    }
    // Gives the file the path `target` within the share.
    void Rename(uint32_t fileId, std::u16string_view target, bool replaceIfExists, IoHandler handler);
    auto Rename(uint32_t fileId, std::u16string_view target, bool replaceIfExists)
    {
        return AwaitStatus(
            [=, this](IoHandler done) { Rename(fileId, target, replaceIfExists, std::move(done)); });
    }
    // Gives the file a name in the open directory `directoryId`, as rename(2) does. Replaces what has the
    // name if that is wanted. STATUS_FILE_INVALID: that directory's handle is of an earlier connection.
    auto RenameInto(uint32_t fileId, uint32_t directoryId, std::u16string_view name, bool replace)
    {
        return AwaitStatus([=, this](IoHandler done) {
            NameInto(fileId, directoryId, name, nt::FileRenameInformationEx,
                     nt::FILE_RENAME_POSIX_SEMANTICS | nt::FILE_RENAME_IGNORE_READONLY_ATTRIBUTE |
                         (replace ? nt::FILE_RENAME_REPLACE_IF_EXISTS : 0),
                     std::move(done));
        });
    }
    // The same for another name of the file, and for a file that changes places with what has the name.
    auto LinkInto(uint32_t fileId, uint32_t directoryId, std::u16string_view name)
    {
        return AwaitStatus([=, this](IoHandler done) {
            NameInto(fileId, directoryId, name, nt::FileLinkInformation, 0, std::move(done));
        });
    }
    auto ExchangeWith(uint32_t fileId, uint32_t directoryId, std::u16string_view name)
    {
        return AwaitStatus([=, this](IoHandler done) {
            NameInto(fileId, directoryId, name, nt::FileRenameInformationEx, nt::FODR_RENAME_EXCHANGE,
                     std::move(done));
        });
    }
    // Copies out of the open file `sourceId`, within the host. Outcome: data, the count in eight bytes.
    auto CopyRange(uint32_t fileId, uint32_t sourceId, const nt::FODR_RANGE_COPY &range)
    {
        return AwaitIo(
            [=, this](IoHandler done) { SendCopyRange(fileId, sourceId, range, std::move(done)); });
    }

    // `path` ends in the pattern; empty: the listing goes on, or lists all. Outcome: data, entries of the
    // class; at the end STATUS_NO_MORE_FILES. Several queries may be under way, and each gets another part.
    void QueryDirectory(uint32_t fileId, uint32_t informationClass, bool restart, std::u16string_view path,
                        IoHandler handler);
    auto QueryDirectory(uint32_t fileId, uint32_t informationClass, bool restart, std::u16string_view path)
    {
        return AwaitIo([=, this](IoHandler done) {
            QueryDirectory(fileId, informationClass, restart, path, std::move(done));
        });
    }
    // The class of listings whose entries tell the most.
    uint32_t ListingClass() const
    {
        return TellsIds() ? nt::FileBothDirectoryInformation : nt::FileFullDirectoryInformation;
    }
    // Waits until something that the filter names has changed; what it was isn't told. Ends with
    // STATUS_CANCELLED or STATUS_NOTIFY_CLEANUP when the file is closed.
    void NotifyChange(uint32_t fileId, uint32_t completionFilter, bool watchTree, IoHandler handler);

    // `operation` is one of RDP_LOWIO_OP_*; all but UNLOCK_MULTIPLE take one range.
    void Lock(uint32_t fileId, uint32_t operation, bool failImmediately,
              std::span<const RDP_LOCK_INFO> ranges, IoHandler handler);
    auto Lock(uint32_t fileId, uint32_t operation, bool failImmediately,
              std::span<const RDP_LOCK_INFO> ranges)
    {
        return AwaitStatus(
            [=, this](IoHandler done) { Lock(fileId, operation, failImmediately, ranges, std::move(done)); });
    }
    // Outcome: data, at most `outputLength` bytes. An answer without data may appear as one zero byte.
    void DeviceControl(uint32_t fileId, uint32_t code, ByteSpan input, uint32_t outputLength,
                       IoHandler handler);
    auto DeviceControl(uint32_t fileId, uint32_t code, ByteSpan input, uint32_t outputLength = 0)
    {
        return AwaitIo(
            [=, this](IoHandler done) { DeviceControl(fileId, code, input, outputLength, std::move(done)); });
    }

private:
    template <class Body>
    void Send(uint32_t major, uint32_t minor, uint32_t fileId, const Body &body, ByteSpan payload,
              RequestTable::Expected expected, IoHandler &&handler);
    uint32_t WireIdOf(uint32_t fileId, RequestTable::Expected *expected) const; // 0: it has none now
    void Query(uint32_t major, uint32_t fileId, uint32_t informationClass, IoHandler &&handler);
    template <class Number>
    void SetNumber(uint32_t fileId, uint32_t informationClass, Number number, IoHandler &&handler)
    {
        std::array<uint8_t, sizeof(number)> record;
        StoreLittle(record.data(), number);
        SetInformation(fileId, informationClass, record, std::move(handler));
    }
    void NameInto(uint32_t fileId, uint32_t directoryId, std::u16string_view name, uint32_t informationClass,
                  uint32_t flags, IoHandler &&handler);
    void SendCopyRange(uint32_t fileId, uint32_t sourceId, nt::FODR_RANGE_COPY range, IoHandler &&handler);

    RdpdrClient &client;
    const RemoteDevice device;
    std::atomic<uint32_t> features{0};
    const FileNumbers numbers;
};

} // namespace fodr::agent
