// Where a name leads: asked of the host, or remembered.
#pragma once

#include "agent/fuse/MountState.h"

namespace fodr::agent {

class NameFinder {
public:
    explicit NameFinder(MountState &mountState) : mount(mountState) {}

    Task<Found> Find(NodePtr parent, std::string name, Freshness freshness = Freshness::Asked);
    // The same, but not while this mount takes a name away for a moment.
    Task<Found> FindPassing(NodePtr parent, std::string name, Freshness freshness);

private:
    bool IsNamedOneByOne(const NodePtr &parent, const Place &place) const;
    // A link as such, whatever is shown of it.
    Task<Found> FindItself(NodePtr parent, std::string name, Freshness freshness);
    static void AskForNames(const DirectoryHandlePtr &directory);
    bool Recall(const NodePtr &parent, const std::string &name, const std::u16string &ntName,
                const DirectoryHandlePtr &directory, Found *found);
    Task<Found> FindByHandle(NodePtr parent, std::string name, Freshness freshness, bool *decided);
    static Task<Found> FindByPath(Place place, bool follow);

    MountState &mount;
};

// What a file is by now: asked by its handle where there is one, else by its name.
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
