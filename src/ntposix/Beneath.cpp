#include "ntposix/FileMetadata.h"
#include "ntposix/Lookup.h"
#include "ntposix/ShareRoots.h"

#include <fcntl.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <linux/magic.h>
#include <linux/openat2.h>
#include <string>
#include <string_view>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <vector>

namespace fodr::ntposix {

namespace {

constexpr int kAttempts = 4; // while others rename
constexpr int kMostLinks = 40;
constexpr int kLeavesRoot = EXDEV; // as openat2 has it, also of links that are absolute

int Openat2(int directory, const char *path, int flags, uint64_t resolve)
{
    open_how how{};
    how.flags = static_cast<uint32_t>(flags | O_CLOEXEC);
    how.resolve = resolve;
    return static_cast<int>(syscall(SYS_openat2, directory, path, &how, sizeof(how)));
}

// Old kernels don't know the call, and some sandboxes refuse it.
bool HasOpenat2()
{
    const Fd probe(Openat2(AT_FDCWD, ".", O_PATH, RESOLVE_NO_MAGICLINKS));
    return probe || (errno != ENOSYS && errno != EPERM);
}

std::atomic<bool> &UsesOpenat2()
{
    static std::atomic<bool> uses{!std::getenv("FODR_WITHOUT_OPENAT2") && HasOpenat2()};
    return uses;
}

// What lies behind the front of a path; false if that isn't its front.
bool TakeFront(std::string_view *path, std::string_view front)
{
    if (front.ends_with('/'))
        front.remove_suffix(1);
    if (front.empty() || !path->starts_with(front) ||
        (path->size() > front.size() && (*path)[front.size()] != '/'))
        return false;
    path->remove_prefix(front.size());
    return true;
}

// The links by which /proc stands for a file that a process has, not for a name.
bool IsMagic(int link, std::string_view target)
{
    struct statfs facts;
    return fstatfs(link, &facts) == 0 && facts.f_type == PROC_SUPER_MAGIC &&
           (target.starts_with('/') || target.find(":[") != std::string_view::npos);
}

// One way from the root to a file. The folders on it are kept, so that ".." goes back to where the way came
// from, wherever that folder was moved to.
class Walk {
public:
    Walk(const HeldRoot &heldRoot, const char *path, int openFlags)
        : root(heldRoot), pending(path), flags(openFlags | O_CLOEXEC)
    {}

    // 0 or an errno.
    int Run(Fd *opened)
    {
        for (;;) {
            const std::string name = TakeComponent();
            int error = 0;
            if (name.empty())
                return OpenAt(".", opened);
            if (name == "..")
                error = GoBack();
            else if (pending.empty())
                return FinishWith(name, opened);
            else
                error = GoInto(name);
            if (error != 0)
                return error;
        }
    }

private:
    int Here() const { return folders.empty() ? root.Folder() : folders.back().Get(); }

    // Empty at the end. What has a separator behind it isn't the last.
    std::string TakeComponent()
    {
        std::string name;
        while (!pending.empty() && (name.empty() || name == ".")) {
            const size_t end = std::min(pending.find('/'), pending.size());
            name = pending.substr(0, end);
            const size_t next = pending.find_first_not_of('/', end);
            pending = next != std::string::npos ? pending.substr(next) : end < pending.size() ? "." : "";
        }
        return name == "." ? std::string() : name;
    }

    int GoBack()
    {
        if (folders.empty())
            return kLeavesRoot;
        folders.pop_back();
        return 0;
    }

    int GoInto(const std::string &name)
    {
        Fd step;
        FileMetadata facts;
        if (const int error = Look(name, &step, &facts); error != 0)
            return error;
        if (facts.kind == FileKind::kLink)
            return Expand(step.Get());
        if (facts.kind != FileKind::kDirectory)
            return ENOTDIR;
        folders.push_back(std::move(step));
        return 0;
    }

    int FinishWith(const std::string &name, Fd *opened)
    {
        Fd step;
        FileMetadata facts;
        if (const int error = Look(name, &step, &facts); error != 0)
            return error;
        if (facts.kind == FileKind::kLink && (flags & O_NOFOLLOW) == 0) {
            const int error = Expand(step.Get());
            return error == 0 ? Run(opened) : error;
        }
        if ((flags & O_PATH) == 0)
            return OpenAt(name.c_str(), opened); // what became a link meanwhile is refused
        if ((flags & O_DIRECTORY) != 0 && facts.kind != FileKind::kDirectory)
            return ENOTDIR;
        *opened = std::move(step);
        return 0;
    }

    int Look(const std::string &name, Fd *step, FileMetadata *facts) const
    {
        step->Reset(openat(Here(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        return *step ? StatDescriptor(step->Get(), facts) : errno;
    }

    int OpenAt(const char *name, Fd *opened) const
    {
        opened->Reset(openat(Here(), name, flags | O_NOFOLLOW));
        return *opened ? 0 : errno;
    }

    int Expand(int link)
    {
        if (++links > kMostLinks)
            return ELOOP;
        char text[PATH_MAX];
        const ssize_t length = readlinkat(link, "", text, sizeof(text));
        if (length <= 0)
            return length == 0 ? ENOENT : errno;
        std::string_view target(text, static_cast<size_t>(length));
        if (IsMagic(link, target))
            return ELOOP;
        if (target.starts_with('/')) {
            if (!root.IsWholeTree() && !TakeFront(&target, PathByKernel(root.Folder())) &&
                !TakeFront(&target, root.Path()) && !TakeFront(&target, root.NamedPath()))
                return kLeavesRoot;
            folders.clear();
        }
        if (target.size() + pending.size() + 1 >= PATH_MAX)
            return ENAMETOOLONG;
        pending = pending.empty() ? std::string(target) : std::string(target) + '/' + pending;
        // From the root on, and not from that of the system.
        pending.erase(0, std::min(pending.find_first_not_of('/'), pending.size()));
        return 0;
    }

    const HeldRoot &root;
    std::string pending;
    const int flags;
    std::vector<Fd> folders;
    int links = 0;
};

// 0 or an errno.
int OpenByKernel(const HeldRoot &root, const char *path, int flags, Fd *opened)
{
    const uint64_t resolve = RESOLVE_NO_MAGICLINKS | (root.IsWholeTree() ? 0 : RESOLVE_BENEATH);
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        opened->Reset(Openat2(root.Folder(), path, flags, resolve));
        if (*opened)
            return 0;
        if (errno != EAGAIN)
            return errno;
    }
    return EAGAIN;
}

} // namespace

int OpenBeneath(const HeldRoot &root, const char *path, int flags, Fd *opened)
{
    if (!*path)
        path = ".";
    if (root.Rules().linksOutside) {
        opened->Reset(openat(root.Folder(), path, flags | O_CLOEXEC));
        return *opened ? 0 : errno;
    }
    if (UsesOpenat2().load(std::memory_order_relaxed)) {
        const int error = OpenByKernel(root, path, flags, opened);
        if (error != EXDEV && error != EAGAIN)
            return error;
    }
    const int error = Walk(root, path, flags).Run(opened);
    return error == kLeavesRoot ? EACCES : error;
}

void UseOpenat2(bool use)
{
    UsesOpenat2() = use && HasOpenat2();
}

} // namespace fodr::ntposix
