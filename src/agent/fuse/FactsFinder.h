// What a file is by now: asked by its handle where there is one, else by its name.
#pragma once

#include "agent/fuse/NameFinder.h"

namespace fodr::agent {

class FactsFinder {
public:
    FactsFinder(MountState &mountState, NameFinder &nameFinder) : mount(mountState), finder(nameFinder) {}

    Task<Found> FactsOf(NodePtr node, Freshness freshness = Freshness::Asked);

private:
    Task<Found> FactsByName(NodePtr node, Freshness freshness);
    Task<Found> FactsOfDirectory(NodePtr node);

    MountState &mount;
    NameFinder &finder;
};

} // namespace fodr::agent
