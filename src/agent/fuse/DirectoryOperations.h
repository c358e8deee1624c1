// Listing folders.
#pragma once

#include "agent/fuse/PlaceFinder.h"

namespace fodr::agent {

class ReaddirBuffer;

class DirectoryOperations {
public:
    DirectoryOperations(MountState &mountState, PlaceFinder &placeFinder)
        : mount(mountState), places(placeFinder)
    {}

    Detached OpenDirectory(FuseCall::Ptr call, uint64_t nodeId);
    Detached ReadDirectory(FuseCall::Ptr call, uint64_t handle, size_t size, uint64_t offset, bool plus);
    void ReleaseDirectory(FuseCall::Ptr call, uint64_t handle);

    // Opens `open->node` and makes its listing.
    Task<nt::NTSTATUS> BeginListing(OpenListingPtr open);

private:
    Task<bool> ListsAnother(const OpenListing &open);
    bool IsKnownBetter(const NodePtr &folder, const DirectoryListing::Entry &entry,
                       Node::Clock::time_point asked) const;
    void FillListing(const OpenListing &open, uint64_t offset, ReaddirBuffer *buffer,
                     std::vector<uint64_t> *reached);

    MountState &mount;
    PlaceFinder &places;
};

} // namespace fodr::agent
