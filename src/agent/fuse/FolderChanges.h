// What is different between two listings of a folder, told as a program in that folder would have seen it
// happen. A file that is gone from one folder and has come to another was moved; so changes of several
// folders are gathered before they are told. Guarded by its owner.
#pragma once

#include "agent/fuse/Node.h"

#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

namespace fodr::agent {

using FolderEntries = std::unordered_map<std::string, FileFacts>;

struct FolderEvent {
    enum class Kind : uint8_t {
        Made,
        Removed,
        Moved,    // from `name` to `newName`
        Replaced, // another file has the name, which wasn't seen to come from anywhere
        Changed,  // its bytes
        Touched,  // its mode, its owner, or times that were set
        Many,     // more than can be told
    };
    Kind kind;
    NodePtr folder;
    std::string name;
    FileFacts facts{}; // of Removed: what it was
    NodePtr newFolder{};
    std::string newName{};
    bool overwrites = false;         // Moved: something had the new name
    FileFacts former{};              // that, or what was replaced
    Node::Clock::time_point asked{}; // the facts are as of then, or later
};

class FolderChanges {
public:
    // Names of which `isOwn` is true were changed by this mount: the kernel has told of them. Likewise
    // `isOwnContent` for what a file holds. Of more than `most` changes none is told by itself.
    using Test = std::function<bool(const std::string &name)>;
    void Compare(const NodePtr &folder, const FolderEntries &before, const FolderEntries &after,
                 const Test &isOwn, const Test &isOwnContent, size_t most);
    // The folder has changed in more ways than are told.
    void AddMany(const NodePtr &folder);
    bool Empty() const { return gone.empty() && come.empty() && told.empty(); }
    // Whether a file is gone or has come: its other end may be in another folder.
    bool MayPair() const { return !gone.empty() || !come.empty(); }
    // In the order in which they can have happened.
    std::vector<FolderEvent> Take();

private:
    struct Name {
        NodePtr folder;
        std::string text;
        FileFacts facts;
        Name *other = nullptr; // of a file that was moved: where it is now, or was
        bool done = false;
    };
    void AddChangeOf(const NodePtr &folder, const std::string &name, const FileFacts &before,
                     const FileFacts &after);
    void DropPassing();
    void Pair();
    Name *GoneAt(const Name &name);
    void TellMoves(std::vector<FolderEvent> *events);

    std::vector<Name> gone, come;
    std::vector<FolderEvent> told;
    std::unordered_multimap<std::string, size_t> goneNames; // by name: places in `gone`
};

} // namespace fodr::agent
