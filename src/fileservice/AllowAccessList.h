// The files that a share with an allow-list shows: absolute paths in NT form, all below the share's root.
//
// Any thread. The list only grows, and whoever goes through it has one state of it in hand.
#pragma once

#include "lib/misc/Mutex.h"
#include "runtime/OVMutex.h"

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace fodr {

class AllowAccessList {
public:
    using Entries = std::vector<std::string>;

    // `path` is the share's root in NT form. The names are taken as they come, in their order; one may hold a
    // path. Where `onlyEntries` is set nothing but the entries and what lies below them is ever reachable;
    // else the looser rules of Covers and of the bypassed streams have the last word.
    AllowAccessList(std::string path, const std::vector<std::string> &names, bool onlyEntries);

    // Appends what isn't in the list yet and returns those paths.
    Entries Append(const std::vector<std::string> &names) EXCLUDES(listLock);
    std::shared_ptr<const Entries> Current() const EXCLUDES(listLock);

    // The root as an open names it: `path` and one backslash.
    bool IsRoot(std::string_view absolutePath) const { return absolutePath == root; }
    // Directly below the root: whether the path, without one backslash at its end, is an entry. Deeper:
    // whether it begins with the text of one, so that what a neighbour "F2" of a listed folder "F" holds is
    // open while "F2" itself isn't. Names compare byte by byte.
    bool Covers(const std::string &absolutePath) const EXCLUDES(listLock);
    // Whether the path may be reached as far as `onlyEntries` is concerned: an entry, a zone mark of one, or
    // a path below one.
    bool IsWithinLimit(std::string_view absolutePath) const EXCLUDES(listLock);
    // Whether an entry of the root directory is one of the list.
    bool Shows(std::string_view name) const EXCLUDES(listLock);
    // An entry's text behind the root and one separator.
    std::string NameOf(const std::string &entry) const { return entry.substr(root.size()); }

private:
    struct List {
        Entries entries;
        std::set<std::string, std::less<>> sorted; // the same
    };
    std::shared_ptr<const List> Take() const EXCLUDES(listLock);

    const std::string path;
    const std::string root;
    const bool onlyEntries;
    mutable OVMutex listLock; // held to take or replace the pointer
    std::shared_ptr<const List> list GUARDED_BY(listLock);
};

// Whether the name is that of the stream in which a file's origin is kept: ":Zone.Identifier" in any case at
// its end.
bool IsZoneMark(std::string_view absolutePath);

} // namespace fodr
