// Whether folders are still where the mount believes them to be, and where the other side has moved them.
#pragma once

#include "agent/fuse/NameFinder.h"

namespace fodr::agent {

// Of a folder: it is where this side believes it to be; nothing is there; another one is.
enum class Standing { Here, Gone, Replaced };
// `Nothing` asks for every folder on the way.
enum class Believing { WhatWasSeen, Nothing };

class PlaceFinder {
public:
    PlaceFinder(MountState &mountState, NameFinder &nameFinder) : mount(mountState), finder(nameFinder) {}

    bool IsConfirmed(const NodePtr &parent, const NodePtr &node) const;
    // A folder that was moved is found if it or what it is in is open; it is `Here` then.
    Task<Standing> Confirm(NodePtr folder, Believing believing = Believing::WhatWasSeen);
    Task<Nothing> Identify(NodePtr node);
    // The place was absent: true when the folder turns out to be elsewhere, with the place there.
    Task<bool> FindPlaceAgain(NodePtr parent, std::string name, Place *place);
    Task<bool> LocateConfirmed(FuseCall::Ptr call, NodePtr parent, std::string name, Place *place);

private:
    Task<bool> FindMoved(NodePtr folder);
    bool LocateForChange(const FuseCall::Ptr &call, const NodePtr &parent, const std::string &name,
                         Place *place) const;

    MountState &mount;
    NameFinder &finder;
};

} // namespace fodr::agent
