// Looking names up; making, removing and renaming them.
#pragma once

#include "agent/fuse/DirectoryOperations.h"
#include "agent/fuse/FactsFinder.h"
#include "agent/fuse/StickyNames.h"

namespace fodr::agent {

class NameOperations {
public:
    NameOperations(MountState &mountState, NameFinder &nameFinder, PlaceFinder &placeFinder,
                   FactsFinder &findsFacts, StickyNames &stickyNames,
                   DirectoryOperations &directoryOperations)
        : mount(mountState), finder(nameFinder), places(placeFinder), factsFinder(findsFacts),
          hidden(stickyNames), listings(directoryOperations)
    {}

    Detached Lookup(FuseCall::Ptr call, uint64_t parentId, std::string name);
    Detached MakeDirectory(FuseCall::Ptr call, uint64_t parentId, std::string name, mode_t mode);
    Detached MakeLink(FuseCall::Ptr call, uint64_t parentId, std::string name, std::string target);
    // A file, a FIFO or a socket.
    Detached MakeNode(FuseCall::Ptr call, uint64_t parentId, std::string name, mode_t mode);
    Detached RemoveDirectory(FuseCall::Ptr call, uint64_t parentId, std::string name);
    Detached Unlink(FuseCall::Ptr call, uint64_t parentId, std::string name);
    Detached Rename(FuseCall::Ptr call, uint64_t parentId, std::string name, uint64_t newParentId,
                    std::string newName, unsigned flags);

private:
    Task<nt::NTSTATUS> MakeFile(NodePtr parent, std::string name, Place *place, mode_t mode,
                                const std::vector<uint8_t> &reparseRecord);
    Task<Nothing> MakeSpecial(FuseCall::Ptr call, uint64_t parentId, std::string name, mode_t mode,
                              std::string target);
    Task<Nothing> LookupShare(FuseCall::Ptr call, std::string name);
    Task<bool> FindAgain(FuseCall::Ptr call, NodePtr parent, std::string name, NodePtr known, Found *found);
    Task<nt::NTSTATUS> RemoveAtOnce(Place place, NodePtr node, bool directory);
    Task<nt::NTSTATUS> RemoveFolder(NodePtr parent, std::string name, Place place);
    Task<nt::NTSTATUS> MoveAtOnce(Moving moving, bool replace);
    Task<nt::NTSTATUS> TryMoveAtOnce(Moving moving, bool replace);
    void NoteMoved(const Moving &moving, const NodePtr &node, uint64_t movedId);
    Task<bool> ClearLeftovers(NodePtr folder);

    MountState &mount;
    NameFinder &finder;
    PlaceFinder &places;
    FactsFinder &factsFinder;
    StickyNames &hidden;
    DirectoryOperations &listings;
};

} // namespace fodr::agent
