// Removing and renaming towards hosts where a name stays as long as its file is open, as NT always did: what
// is open is given a name that nobody is shown.
#pragma once

#include "agent/fuse/NameFinder.h"

namespace fodr::agent {

struct Moving { // a rename
    NodePtr parent, newParent;
    std::string name, newName;
    Place source, target;
    uint32_t fileId = 0; // what is being renamed
};

// A link is removed and renamed itself, not what it leads to.
RemoteShare::CreateCall OpenToDelete(const RemoteShare &share, bool directory);

class StickyNames {
public:
    StickyNames(MountState &mountState, NameFinder &nameFinder);

    Task<nt::NTSTATUS> RemoveFile(NodePtr parent, std::string name, Place place);
    Task<nt::NTSTATUS> RemoveFolder(NodePtr node, Place place);
    Task<nt::NTSTATUS> Move(Moving moving, bool replace);
    // What a removed file had kept, with the last of its handles.
    void CloseDeletion(const NodePtr &node, const std::shared_ptr<RemoteShare> &share);
    Task<nt::NTSTATUS> DeleteFileAt(const Place &place);

private:
    std::string HiddenName();
    Task<Nothing> ClearTheWay(NodePtr node);
    Task<nt::NTSTATUS> ClearReadOnly(const Place &place);
    Task<nt::NTSTATUS> DeleteOpened(const Place &place, uint32_t fileId);
    Task<nt::NTSTATUS> DeleteDirectory(Place place);
    Task<IoResult> OpenForDeletion(const Place &place);
    Task<nt::NTSTATUS> DeleteOpenFile(NodePtr parent, std::string name, NodePtr node, Place place);
    Task<bool> AwaitClosesBelow(NodePtr folder);
    Task<nt::NTSTATUS> RenameOver(Moving moving, nt::NTSTATUS refusal);
    Task<nt::NTSTATUS> RenameOverOpenFile(Moving moving, NodePtr targetNode);

    MountState &mount;
    NameFinder &finder;
    std::atomic<uint32_t> counter{0};
    const uint32_t seed;
};

} // namespace fodr::agent
