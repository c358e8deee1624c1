// The roots of the shares that there are, and the folders that stand behind them. Any thread.
#pragma once

#include "lib/misc/Fd.h"
#include "lib/misc/Mutex.h"
#include "ntposix/FileObject.h"
#include "platform/Nt.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace fodr::ntposix {

// The folder of a root as it was found once. Every open of the share keeps the one that it was made below.
class HeldRoot {
public:
    // `folderFd` is O_PATH. `namedPath` is how it was asked for, `realPath` how it is spelled on disk.
    HeldRoot(Fd folderFd, FileKey folderKey, std::string namedPath, std::string realPath,
             const nt::ShareRules &shareRules);

    int Folder() const { return folder.Get(); }
    const FileKey &Key() const { return key; }
    const std::string &NamedPath() const { return named; }
    // What the paths of its files begin with, as OpenFile::path has them: "/" or without a separator at its
    // end.
    const std::string &Path() const { return path; }
    const nt::ShareRules &Rules() const { return rules; }
    // Nothing can lie outside of it.
    bool IsWholeTree() const { return wholeTree; }
    // No folder can be found or made in it any more.
    bool IsRemoved() const;
    // Whether `path` still leads to it.
    bool HasItsName() const;

private:
    const Fd folder;
    const FileKey key;
    const std::string named;
    const std::string path;
    const nt::ShareRules rules;
    const bool wholeTree;
};

class RegisteredRoot {
public:
    explicit RegisteredRoot(std::u16string_view ntText) : text(ntText) {}

    const std::u16string text;

    enum class Look {
        AsHeld,
        Anew, // unless the name still leads to what is held
    };
    // The folder, found now if it isn't held. `path` is what the root's name stands for at present. An absent
    // folder is STATUS_OBJECT_PATH_NOT_FOUND.
    [[nodiscard]] nt::NTSTATUS Hold(std::string_view path, Look look, std::shared_ptr<const HeldRoot> *root)
        EXCLUDES(lock);
    bool HasExactName() EXCLUDES(lock);

private:
    friend class ShareRoots;

    void AddRules(const nt::ShareRules &added) EXCLUDES(lock);
    // True if there are none left.
    bool RemoveRules(const nt::ShareRules &removed) EXCLUDES(lock);
    void Combine() REQUIRES(lock);

    Mutex lock;
    std::vector<nt::ShareRules> allRules GUARDED_BY(lock); // of each share with this root
    nt::ShareRules rules GUARDED_BY(lock);                 // the strictest of them
    std::shared_ptr<const HeldRoot> held GUARDED_BY(lock);
    std::weak_ptr<const HeldRoot> inUse GUARDED_BY(lock); // where holding would be in the way
};

class ShareRoots {
public:
    static ShareRoots &Instance();

    void Add(std::u16string_view text, const nt::ShareRules &rules) EXCLUDES(lock);
    void Remove(std::u16string_view text, const nt::ShareRules &rules) EXCLUDES(lock);
    // The root that the NT name belongs to; null if it belongs to none.
    [[nodiscard]] std::shared_ptr<RegisteredRoot> Find(std::u16string_view name) EXCLUDES(lock);

private:
    Mutex lock; // before that of a root
    std::vector<std::shared_ptr<RegisteredRoot>> roots GUARDED_BY(lock);
};

// From the root of a share to its files, by the kernel's own rule: openat2 with RESOLVE_BENEATH, so that no
// name, no link and no ".." of a link's target leads out, whatever is renamed meanwhile. Where the kernel has
// no openat2, and for links with absolute targets, which it refuses, the way is gone component by component
// and links are expanded here. Any thread.

// `path` is relative; "" and "." are the root itself. `flags` are open(2)'s without O_CREAT; O_CLOEXEC is
// added. 0 or an errno:
//   EACCES   a link leads out of the share, whether there is anything or not (where the rules forbid it)
//   ELOOP    too many links, or one with O_NOFOLLOW; the links of /proc that stand for a process's own files
// An absolute target lies inside when it begins with the root's path as it is now or as it was asked for; it
// is looked for from the root on.
[[nodiscard]] int OpenBeneath(const HeldRoot &root, const char *path, int flags, Fd *opened);

// For tests: without openat2 from now on, or with it if the kernel has it. FODR_WITHOUT_OPENAT2 in the
// environment says so from the start.
void UseOpenat2(bool use);

} // namespace fodr::ntposix
