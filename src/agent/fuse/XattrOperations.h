// Extended attributes of users, which are named streams of the other side: "user.NAME" is the stream of that
// whole name, "user.DosStream.NAME:$DATA" with a zero at its end the stream NAME. Other kinds of attributes
// are answered without a request.
#pragma once

#include "agent/fuse/PlaceFinder.h"

namespace fodr::agent {

class XattrOperations {
public:
    XattrOperations(MountState &mountState, PlaceFinder &placeFinder) : mount(mountState), places(placeFinder)
    {}

    // `room` is the caller's; 0: it asks for the size.
    Detached Get(FuseCall::Ptr call, uint64_t nodeId, std::string name, size_t room);
    Detached List(FuseCall::Ptr call, uint64_t nodeId, size_t room);
    // As setxattr(2).
    Detached Set(FuseCall::Ptr call, uint64_t nodeId, std::string name, std::vector<uint8_t> value,
                 int flags);
    Detached Remove(FuseCall::Ptr call, uint64_t nodeId, std::string name);

private:
    enum class Use { Reads, Changes };
    Task<bool> Locate(FuseCall::Ptr call, NodePtr node, Use use, Place *place);
    Task<IoResult> OpenStream(NodePtr node, Place place, std::string name, RemoteShare::CreateCall open);
    Task<nt::NTSTATUS> Store(NodePtr node, Place place, std::string name, std::vector<uint8_t> value,
                             uint32_t disposition);

    MountState &mount;
    PlaceFinder &places;
};

} // namespace fodr::agent
