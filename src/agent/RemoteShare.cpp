#include "agent/RemoteShare.h"

#include "platform/Nt.h"
#include "platform/NtRecords.h"

#include <limits>

namespace fodr::agent {
namespace {

constexpr uint32_t kAnyLength = std::numeric_limits<uint32_t>::max();

// A path with its terminator, as bytes. Short ones, which are nearly all, aren't allocated.
class WirePath {
public:
    explicit WirePath(std::u16string_view path)
    {
        uint8_t *to = shortOne.data();
        size = 2 * (path.size() + 1);
        if (size > shortOne.size()) {
            longOne.resize(size);
            to = longOne.data();
        }
        for (size_t i = 0; i < path.size(); ++i)
            StoreLittle(to + 2 * i, static_cast<uint16_t>(path[i]));
        StoreLittle<uint16_t>(to + 2 * path.size(), 0);
    }
    ByteSpan Bytes() const { return {longOne.empty() ? shortOne.data() : longOne.data(), size}; }

private:
    std::array<uint8_t, 512> shortOne;
    std::vector<uint8_t> longOne;
    size_t size;
};

AfterLoss RepeatsIf(bool repeats)
{
    return repeats ? AfterLoss::Repeats : AfterLoss::Fails;
}

uint32_t Size32(ByteSpan bytes)
{
    return static_cast<uint32_t>(bytes.size());
}

} // namespace

template <class Body>
void RemoteShare::Send(uint32_t major, uint32_t minor, uint32_t fileId, const Body &body, ByteSpan payload,
                       RequestTable::Expected expected, IoHandler &&handler)
{
    DR_DEVICE_IOREQUEST request;
    request.DeviceId = device.id;
    request.FileId = fileId;
    request.MajorFunction = major;
    request.MinorFunction = minor;
    request.SetBody(body);
    expected.deviceId = device.id;
    expected.ofConnection = numbers == FileNumbers::OfConnection;
    client.Submit(request, payload, expected, std::move(handler));
}

bool RemoteShare::IsLost(uint32_t fileId)
{
    uint32_t present = 0;
    return numbers == FileNumbers::Lasting && OutlivesConnections() && client.WireIdOf(fileId, &present) == 0;
}

void RemoteShare::Create(const CreateCall &call, std::u16string_view path, IoHandler handler)
{
    const WirePath wirePath(path);
    const DR_CREATE_REQ body = {.DesiredAccess = call.desiredAccess,
                                .AllocationSize = call.allocationSize,
                                .FileAttributes = call.fileAttributes,
                                .SharedAccess = call.sharedAccess,
                                .CreateDisposition = call.createDisposition,
                                .CreateOptions = call.createOptions,
                                .PathLength = Size32(wirePath.Bytes())};
    // One that deletes at its close may have done so.
    const bool repeats =
        call.createDisposition == nt::FILE_OPEN && (call.createOptions & nt::FILE_DELETE_ON_CLOSE) == 0;
    Send(IRP_MJ_CREATE, 0, 0, body, wirePath.Bytes(),
         {.answer = AnswerKind::Create, .afterLoss = RepeatsIf(repeats)}, std::move(handler));
}

void RemoteShare::Close(uint32_t fileId, IoHandler handler)
{
    Send(IRP_MJ_CLOSE, 0, fileId, DR_READ_REQ{}, {},
         {.answer = AnswerKind::Status, .afterLoss = AfterLoss::IsOver}, std::move(handler));
}

void RemoteShare::Read(uint32_t fileId, uint64_t offset, uint32_t length, IoHandler handler)
{
    const DR_READ_REQ body = {.Length = length, .Offset = offset};
    Send(IRP_MJ_READ, 0, fileId, body, {},
         {.answer = AnswerKind::Data, .limit = length, .afterLoss = AfterLoss::Repeats}, std::move(handler));
}

void RemoteShare::Write(uint32_t fileId, uint64_t offset, ByteSpan bytes, IoHandler handler)
{
    const DR_WRITE_REQ body = {.Length = Size32(bytes), .Offset = offset};
    Send(IRP_MJ_WRITE, 0, fileId, body, bytes,
         {.answer = AnswerKind::Length,
          .limit = Size32(bytes),
          .afterLoss = RepeatsIf(offset != kEndOfFile)}, // an append may have been done
         std::move(handler));
}

// Queries of a file and of a volume have one form.
void RemoteShare::Query(uint32_t major, uint32_t fileId, uint32_t informationClass, IoHandler &&handler)
{
    static_assert(kWireSize<DR_DRIVE_QUERY_INFORMATION_REQ> ==
                  kWireSize<DR_DRIVE_QUERY_VOLUME_INFORMATION_REQ>);
    const DR_DRIVE_QUERY_INFORMATION_REQ body = {.FsInformationClass = informationClass};
    Send(major, 0, fileId, body, {},
         {.answer = AnswerKind::Data, .limit = kAnyLength, .afterLoss = AfterLoss::Repeats},
         std::move(handler));
}

nt::NTSTATUS RemoteShare::TakeFacts(const IoResult &result, FileFacts *facts) const
{
    if (result.Failed())
        return result.status;
    const bool whole =
        TellsIds() ? ReadStatInformation(result.data, facts) : ReadNetworkOpenInformation(result.data, facts);
    if (!HasIds())
        facts->DropId();
    return whole ? nt::STATUS_SUCCESS : STATUS_INVALID_NETWORK_RESPONSE;
}

Task<nt::NTSTATUS> RemoteShare::QueryFacts(uint32_t fileId, FileFacts *facts)
{
    const IoResult result = co_await QueryInformation(fileId, FactsClass());
    co_return TakeFacts(result, facts);
}

void RemoteShare::SetInformation(uint32_t fileId, uint32_t informationClass, ByteSpan record,
                                 IoHandler handler)
{
    const DR_DRIVE_SET_INFORMATION_REQ body = {.FsInformationClass = informationClass,
                                               .Length = Size32(record)};
    const bool repeats = informationClass == nt::FileBasicInformation ||
                         informationClass == nt::FileEndOfFileInformation ||
                         informationClass == nt::FileAllocationInformation;
    Send(IRP_MJ_SET_INFORMATION, 0, fileId, body, record,
         {.answer = AnswerKind::Status, .afterLoss = RepeatsIf(repeats)}, std::move(handler));
}

void RemoteShare::Rename(uint32_t fileId, std::u16string_view target, bool replaceIfExists, IoHandler handler)
{
    const WirePath wirePath(target);
    const ByteSpan name = wirePath.Bytes();
    std::vector<uint8_t> record(kWireSize<RDP_FILE_RENAME_INFORMATION> + name.size());
    StoreRecord(
        RDP_FILE_RENAME_INFORMATION{.ReplaceIfExists = replaceIfExists, .FileNameLength = Size32(name)},
        record.data());
    memcpy(record.data() + kWireSize<RDP_FILE_RENAME_INFORMATION>, name.data(), name.size());
    SetInformation(fileId, nt::FileRenameInformation, record, std::move(handler));
}

uint32_t RemoteShare::WireIdOf(uint32_t fileId, RequestTable::Expected *expected) const
{
    return numbers == FileNumbers::Lasting ? client.WireIdOf(fileId, &expected->onlyOn) : fileId;
}

// The records of all classes that name a directory have one form.
void RemoteShare::NameInto(uint32_t fileId, uint32_t directoryId, std::u16string_view name,
                           uint32_t informationClass, uint32_t flags, IoHandler &&handler)
{
    RequestTable::Expected expected = {.answer = AnswerKind::Status};
    const uint32_t wireId = WireIdOf(directoryId, &expected);
    if (wireId == 0)
        return handler(IoResult{.status = STATUS_FILE_INVALID});
    constexpr size_t kName = offsetof(nt::FILE_RENAME_INFORMATION_EX, FileName);
    std::vector<uint8_t> record(std::max(kName + 2 * name.size(), sizeof(nt::FILE_RENAME_INFORMATION_EX)));
    StoreLittle<uint32_t>(&record[offsetof(nt::FILE_RENAME_INFORMATION_EX, Flags)], flags);
    StoreLittle<uint64_t>(&record[offsetof(nt::FILE_RENAME_INFORMATION_EX, RootDirectory)], wireId);
    StoreLittle<uint32_t>(&record[offsetof(nt::FILE_RENAME_INFORMATION_EX, FileNameLength)],
                          static_cast<uint32_t>(2 * name.size()));
    for (size_t i = 0; i < name.size(); ++i)
        StoreLittle(&record[kName + 2 * i], static_cast<uint16_t>(name[i]));
    const DR_DRIVE_SET_INFORMATION_REQ body = {.FsInformationClass = informationClass,
                                               .Length = Size32(record)};
    Send(IRP_MJ_SET_INFORMATION, 0, fileId, body, record, expected, std::move(handler));
}

void RemoteShare::SendCopyRange(uint32_t fileId, uint32_t sourceId, nt::FODR_RANGE_COPY range,
                                IoHandler &&handler)
{
    RequestTable::Expected expected = {.answer = AnswerKind::Control, .limit = sizeof(uint64_t)};
    range.Source = WireIdOf(sourceId, &expected);
    if (range.Source == 0)
        return handler(IoResult{.status = STATUS_FILE_INVALID});
    const ByteSpan input(reinterpret_cast<const uint8_t *>(&range), sizeof(range));
    const DR_CONTROL_REQ body = {.OutputBufferLength = sizeof(uint64_t),
                                 .InputBufferLength = Size32(input),
                                 .IoControlCode = nt::FSCTL_FODR_COPY_RANGE};
    Send(IRP_MJ_DEVICE_CONTROL, 0, fileId, body, input, expected, std::move(handler));
}

void RemoteShare::QueryDirectory(uint32_t fileId, uint32_t informationClass, bool restart,
                                 std::u16string_view path, IoHandler handler)
{
    const WirePath wirePath(path);
    const ByteSpan bytes = path.empty() ? ByteSpan{} : wirePath.Bytes();
    const DR_DRIVE_QUERY_DIRECTORY_REQ body = {
        .FsInformationClass = informationClass, .InitialQuery = restart, .PathLength = Size32(bytes)};
    // A listing that goes on has its place in the handle.
    Send(IRP_MJ_DIRECTORY_CONTROL, IRP_MN_QUERY_DIRECTORY, fileId, body, bytes,
         {.answer = AnswerKind::Data, .limit = kAnyLength, .afterLoss = RepeatsIf(restart)},
         std::move(handler));
}

void RemoteShare::NotifyChange(uint32_t fileId, uint32_t completionFilter, bool watchTree, IoHandler handler)
{
    const DR_DRIVE_NOTIFY_CHANGE_DIRECTORY_REQ body = {.WatchTree = watchTree,
                                                       .CompletionFilter = completionFilter};
    Send(IRP_MJ_DIRECTORY_CONTROL, IRP_MN_NOTIFY_CHANGE_DIRECTORY, fileId, body, {},
         {.answer = AnswerKind::Status, .timed = false}, std::move(handler));
}

void RemoteShare::Lock(uint32_t fileId, uint32_t operation, bool failImmediately,
                       std::span<const RDP_LOCK_INFO> ranges, IoHandler handler)
{
    std::vector<uint8_t> list(ranges.size() * kWireSize<RDP_LOCK_INFO>);
    for (size_t i = 0; i < ranges.size(); ++i)
        StoreRecord(ranges[i], list.data() + i * kWireSize<RDP_LOCK_INFO>);
    const DR_DRIVE_LOCK_REQ body = {.Operation = operation,
                                    .F = failImmediately ? kLockFailImmediately : 0,
                                    .NumLocks = static_cast<uint32_t>(ranges.size())};
    const bool unlock = operation == RDP_LOWIO_OP_UNLOCK || operation == RDP_LOWIO_OP_UNLOCK_MULTIPLE;
    Send(IRP_MJ_LOCK_CONTROL, 0, fileId, body, list,
         {.answer = AnswerKind::Status, .timed = failImmediately || unlock}, std::move(handler));
}

void RemoteShare::DeviceControl(uint32_t fileId, uint32_t code, ByteSpan input, uint32_t outputLength,
                                IoHandler handler)
{
    const DR_CONTROL_REQ body = {
        .OutputBufferLength = outputLength, .InputBufferLength = Size32(input), .IoControlCode = code};
    Send(
        IRP_MJ_DEVICE_CONTROL, 0, fileId, body, input,
        {.answer = AnswerKind::Control,
         .limit = outputLength,
         .afterLoss = RepeatsIf(code == nt::FSCTL_GET_REPARSE_POINT || code == nt::FSCTL_FODR_SET_MODE ||
                                code == nt::FSCTL_QUERY_ALLOCATED_RANGES || code == nt::FSCTL_FODR_ALLOCATE)},
        std::move(handler));
}

} // namespace fodr::agent
