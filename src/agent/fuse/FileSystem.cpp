#include "agent/fuse/FileSystem.h"

#include "platform/Nt.h"

#include <algorithm>
#include <cstring>

namespace fodr::agent {

// Who doesn't know the control refuses it.
Detached FileSystem::AskFeatures(std::shared_ptr<RemoteShare> share, InlineFunction<void()> done)
{
    const RemoteShare::CreateCall open = {.desiredAccess = nt::FILE_READ_ATTRIBUTES | nt::SYNCHRONIZE,
                                          .createDisposition = nt::FILE_OPEN};
    const std::u16string root = u"\\";
    const IoResult opened = co_await share->Create(open, root);
    if (!opened.Failed()) {
        const uint32_t fileId = opened.fileId;
        const IoResult told = co_await share->DeviceControl(fileId, nt::FSCTL_FODR_QUERY_HOST, {},
                                                            sizeof(nt::FODR_HOST_INFORMATION));
        nt::FODR_HOST_INFORMATION host{};
        if (!told.Failed() && told.data.size() >= sizeof(host))
            memcpy(&host, told.data.data(), sizeof(host));
        uint32_t features = host.Version >= 1 ? host.Features : 0;
        if (!share->ListsSeveral()) // entries that come alone have another layout
            features &= ~nt::FODR_HOST_FILE_IDS;
        if (share->Device().IsTagged()) // where names are guarded one by one
            features &= ~nt::FODR_HOST_POSIX_NAMES;
        share->SetFeatures(features);
        co_await share->Close(fileId);
    }
    done();
}

// A share's name as a folder of the root, where it can be one, without the tag that says what share it is.
std::string FileSystem::FolderName(const RemoteDevice &device)
{
    const size_t tag = device.IsTagged() ? device.name.find(')') + 1 : 0;
    std::string name = device.name.substr(tag, 255);
    std::replace(name.begin(), name.end(), '/', '_');
    if (name.empty() || name == "." || name == "..")
        name = "_" + name;
    return name;
}

bool FileSystem::AddShare(std::shared_ptr<RemoteShare> share)
{
    const uint32_t deviceId = share->Device().id;
    if (!mount.options.folders) {
        uint32_t none = 0;
        if (!rootDevice.compare_exchange_strong(none, deviceId) && none != deviceId)
            return false;
        mount.table.SetRootShare(std::move(share));
        mount.notifier.AttributesChanged(NodeTable::kRootId);
        events.OnUsed(NodeTable::kRootId);
        return true;
    }
    RemoveShare(deviceId); // it may have come back under its number
    const std::string name = FolderName(share->Device());
    if (!mount.table.AddShareFolder(name, std::move(share)))
        return false;
    mount.notifier.NameChanged(NodeTable::kRootId, name);
    return true;
}

void FileSystem::RemoveShare(uint32_t deviceId)
{
    if (!mount.options.folders) {
        uint32_t present = deviceId;
        if (rootDevice.compare_exchange_strong(present, 0)) {
            mount.table.SetRootShare(nullptr);
            mount.notifier.AttributesChanged(NodeTable::kRootId);
        }
        return;
    }
    const std::string name = mount.table.RemoveShareFolder(deviceId);
    if (!name.empty())
        mount.notifier.NameGone(NodeTable::kRootId, name);
}

bool FileSystem::HasShare() const
{
    return mount.table.RootShare() || !mount.table.ShareFolders().empty();
}

void FileSystem::SetSession(fuse_session *fuseSession)
{
    mount.session = fuseSession;
    if (fuseSession) {
        for (KernelNotifier *notifier : {&mount.notifier, &mount.dataNotifier})
            notifier->SetSession(fuseSession);
    } else {
        for (KernelNotifier *notifier : {&mount.notifier, &mount.dataNotifier})
            notifier->Stop();
        events.Actor().Stop();
    }
}

void FileSystem::Clear()
{
    mount.directories.Clear();
    mount.openListings.DropAll();
    mount.openedAhead.Purge(true);
    locks.Clear();
    for (const RemoteFilePtr &file : mount.openFiles.DropAll())
        file->node->opens.Remove(file);
}

} // namespace fodr::agent
