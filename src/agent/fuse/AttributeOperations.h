// What files are: their facts and how they are changed, where links lead, what may be done, how much room
// there is.
#pragma once

#include "agent/fuse/FactsFinder.h"
#include "agent/fuse/PlaceFinder.h"
#include "agent/fuse/RemoteCalls.h"

namespace fodr::agent {

// What setattr changes.
struct AttributeChange {
    bool setSize = false, setMode = false, setUser = false, setGroup = false;
    uint64_t size = 0;
    mode_t mode = 0;
    Owner owner;
    bool setAccessTime = false, setWriteTime = false;
    timespec accessTime{}, writeTime{};

    bool SetsTimes() const { return setAccessTime || setWriteTime; }
    bool SetsModeOrOwner() const { return setMode || setUser || setGroup; }
};

class AttributeOperations {
public:
    AttributeOperations(MountState &mountState, PlaceFinder &placeFinder, FactsFinder &findsFacts)
        : mount(mountState), places(placeFinder), factsFinder(findsFacts)
    {}

    Detached GetAttributes(FuseCall::Ptr call, uint64_t nodeId);
    // `handle` is 0 where the kernel gave none.
    Detached SetAttributes(FuseCall::Ptr call, uint64_t nodeId, AttributeChange change, uint64_t handle);
    Detached ReadLink(FuseCall::Ptr call, uint64_t nodeId);
    Detached Access(FuseCall::Ptr call, uint64_t nodeId, int mask);
    Detached StatFs(FuseCall::Ptr call, uint64_t nodeId);

private:
    struct Borrowed { // a handle to change a file with
        nt::NTSTATUS status = nt::STATUS_SUCCESS;
        std::shared_ptr<RemoteShare> share;
        uint32_t fileId = 0;
        OpenFilePtr file; // whose handle it is; null: to be closed
    };
    Task<Borrowed> BorrowHandle(NodePtr node, OpenFilePtr file, bool forData);
    void GiveBack(const NodePtr &node, const Borrowed &borrowed);
    int Refusal(const NodePtr &node, const AttributeChange &change, uint64_t handle) const;
    struct Changed {
        Borrowed borrowed;
        std::shared_ptr<FactsUnderway> identity; // of what was opened for the change
        FileFacts facts;                         // after the change, if they are known
        bool known = false;
    };
    // References outlive the wait.
    Task<nt::NTSTATUS> CheckIdentity(NodePtr node, std::shared_ptr<FactsUnderway> identity);
    Task<nt::NTSTATUS> SetSize(NodePtr node, const Borrowed &borrowed, uint64_t size);
    Task<nt::NTSTATUS> Change(NodePtr node, const AttributeChange &change, Changed *changed);
    Task<nt::NTSTATUS> ChangeMode(const Borrowed &borrowed, const AttributeChange &change);
    Task<nt::NTSTATUS> ChangeBasics(const Borrowed &borrowed, const AttributeChange &change, bool directory,
                                    FileFacts *changed, bool *known);
    Task<Found> FactsAfter(NodePtr node, const Changed &changed);

    MountState &mount;
    PlaceFinder &places;
    FactsFinder &factsFinder;
};

} // namespace fodr::agent
