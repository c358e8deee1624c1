// Further names of files, and names that change places.
#pragma once

#include "agent/fuse/PlaceFinder.h"
#include "agent/fuse/StickyNames.h"

namespace fodr::agent {

class LinkOperations {
public:
    LinkOperations(MountState &mountState, PlaceFinder &placeFinder) : mount(mountState), places(placeFinder)
    {}

    Detached Link(FuseCall::Ptr call, uint64_t nodeId, uint64_t newParentId, std::string newName);
    Detached Exchange(FuseCall::Ptr call, uint64_t parentId, std::string name, uint64_t newParentId,
                      std::string newName);

private:
    Task<bool> Locate(FuseCall::Ptr call, Moving *moving, uint32_t feature, int refusal);
    // Opens the source and gives it, or what it is exchanged with, the new name. `facts` are of the source,
    // after a link and before an exchange.
    enum class Change { Link, Exchange };
    Task<nt::NTSTATUS> Try(Moving moving, Change change, FileFacts *facts);
    Task<nt::NTSTATUS> Apply(Moving *moving, Change change, FileFacts *facts);
    Task<nt::NTSTATUS> NameIt(Moving moving, uint32_t fileId, DirectoryHandlePtr folder, Change change,
                              FileFacts *facts);
    void NoteExchanged(const Moving &moving);

    MountState &mount;
    PlaceFinder &places;
};

} // namespace fodr::agent
