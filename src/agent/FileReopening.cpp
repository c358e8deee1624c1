#include "agent/FileReopening.h"

#include "agent/RemoteShare.h"
#include "platform/Nt.h"
#include "platform/NtRecords.h"

#include <algorithm>
#include <array>

namespace fodr::agent {
namespace {

auto Query(RemoteShare &share, uint32_t fileId, uint32_t informationClass)
{
    return AwaitIo([&share, fileId, informationClass](IoHandler done) {
        share.QueryInformation(fileId, informationClass, std::move(done));
    });
}

// The statuses of a request that may fare better another time.
bool SaysLater(nt::NTSTATUS status)
{
    return status == STATUS_IO_TIMEOUT || status == STATUS_CONNECTION_DISCONNECTED;
}

bool SaysGone(nt::NTSTATUS status)
{
    constexpr std::array kGone = {nt::STATUS_OBJECT_NAME_NOT_FOUND, nt::STATUS_OBJECT_PATH_NOT_FOUND,
                                  nt::STATUS_NO_SUCH_FILE,          nt::STATUS_DELETE_PENDING,
                                  nt::STATUS_FILE_DELETED,          nt::STATUS_FILE_IS_A_DIRECTORY,
                                  nt::STATUS_NOT_A_DIRECTORY,       nt::STATUS_OBJECT_NAME_INVALID};
    return std::find(kGone.begin(), kGone.end(), status) != kGone.end();
}

Detached Run(RdpdrClient &client, RequestTable &requests, RequestTable::Reopening reopening,
             InlineFunction<void(RequestTable::Released)> release)
{
    RemoteDevice device;
    device.id = reopening.shareId;
    RemoteShare share(client, device, RemoteShare::FileNumbers::OfConnection);
    std::u16string path;
    nt::NTSTATUS status = STATUS_FILE_INVALID;
    uint32_t fileId = 0;
    if (reopening.reopen->Place(&path)) {
        const RemoteShare::CreateCall call = {.desiredAccess = reopening.how.DesiredAccess,
                                              .createDisposition = nt::FILE_OPEN,
                                              .createOptions = reopening.how.CreateOptions,
                                              .sharedAccess = reopening.how.SharedAccess};
        const IoResult opened =
            co_await AwaitIo([&](IoHandler done) { share.Create(call, path, std::move(done)); });
        status = SaysGone(opened.status) ? STATUS_FILE_INVALID : opened.status;
        fileId = opened.fileId;
        if (!opened.Failed())
            status = co_await CheckIdentity(share, fileId, *reopening.reopen);
    }
    bool taken = false;
    RequestTable::Released released = requests.EndReopening(reopening, status, fileId, &taken);
    if (fileId != 0 && !taken)
        share.Close(fileId, [](const IoResult &) {});
    release(std::move(released));
}

} // namespace

Task<nt::NTSTATUS> CheckIdentity(RemoteShare &share, uint32_t fileId, IReopen &reopen)
{
    const uint64_t expected = reopen.ExpectedId();
    // Both begin with the file's id.
    constexpr std::array kClasses = {nt::FileStatLxInformation, nt::FileInternalInformation};
    for (size_t i = 0; expected != 0 && i < kClasses.size(); ++i) {
        const IoResult result = co_await Query(share, fileId, kClasses[i]);
        if (SaysLater(result.status))
            co_return result.status;
        uint64_t id = 0;
        if (!result.Failed() && result.data.size() >= sizeof(id))
            id = LoadLittle<uint64_t>(result.data.data());
        if (id != 0)
            co_return id == expected ? nt::STATUS_SUCCESS : STATUS_FILE_INVALID;
    }
    const IoResult result = co_await Query(share, fileId, nt::FileNetworkOpenInformation);
    if (SaysLater(result.status))
        co_return result.status;
    FileFacts facts;
    const bool same =
        !result.Failed() && ReadNetworkOpenInformation(result.data, &facts) && reopen.MayBe(facts);
    co_return same ? nt::STATUS_SUCCESS : STATUS_FILE_INVALID;
}

void ReopenFile(RdpdrClient &client, RequestTable &requests, uint32_t fileId,
                InlineFunction<void(RequestTable::Released)> release)
{
    RequestTable::Reopening reopening;
    if (requests.DescribeReopening(fileId, &reopening))
        Run(client, requests, std::move(reopening), std::move(release));
}

} // namespace fodr::agent
