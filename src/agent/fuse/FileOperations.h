// Opening, reading and writing files. `handle` is what Opened or Created gave.
#pragma once

#include "agent/fuse/FileOpener.h"
#include "agent/fuse/StickyNames.h"

namespace fodr::agent {

class FileOperations {
public:
    FileOperations(MountState &mountState, PlaceFinder &placeFinder, FileOpener &fileOpener,
                   StickyNames &stickyNames)
        : mount(mountState), places(placeFinder), opener(fileOpener), hidden(stickyNames)
    {}

    Detached Open(FuseCall::Ptr call, uint64_t nodeId, int flags);
    Detached Create(FuseCall::Ptr call, uint64_t parentId, std::string name, mode_t mode, int flags);
    void Read(FuseCall::Ptr call, uint64_t handle, uint64_t offset, uint32_t length);
    void Write(FuseCall::Ptr call, uint64_t handle, uint64_t offset, ByteSpan bytes, int flags);
    void Flush(FuseCall::Ptr call, const OpenFilePtr &file);
    void Sync(FuseCall::Ptr call, uint64_t handle) { Flush(std::move(call), mount.openFiles.Of(handle)); }
    void Release(FuseCall::Ptr call, uint64_t handle);

private:
    Task<nt::NTSTATUS> Truncate(NodePtr node, std::shared_ptr<RemoteShare> share, uint32_t fileId);
    Task<bool> LocateToOpen(FuseCall::Ptr call, NodePtr node, int flags, Place *place);

    MountState &mount;
    PlaceFinder &places;
    FileOpener &opener;
    StickyNames &hidden;
};

} // namespace fodr::agent
