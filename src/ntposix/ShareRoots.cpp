#include "ntposix/ShareRoots.h"

#include "ntposix/FileMetadata.h"
#include "ntposix/Lookup.h"
#include "ntposix/NtCall.h"

#include <fcntl.h>

#include <algorithm>
#include <sys/stat.h>
#include <tuple>
#include <utility>

namespace fodr::ntposix {

using namespace nt;

namespace {

bool IsSeparator(char16_t unit)
{
    return unit == u'\\' || unit == u'/';
}

bool AreSame(const ShareRules &a, const ShareRules &b)
{
    return std::tie(a.exactRoot, a.names, a.linksOutside) == std::tie(b.exactRoot, b.names, b.linksOutside);
}

bool IsRootDirectory(const FileKey &key)
{
    FileMetadata facts;
    return StatAt(AT_FDCWD, "/", Links::kFollow, &facts) == 0 && facts.key == key;
}

// What "/" is on can't be unmounted anyway.
bool IsOnRootFileSystem(const FileKey &key)
{
    FileMetadata facts;
    return StatAt(AT_FDCWD, "/", Links::kFollow, &facts) == 0 && facts.key.device == key.device;
}

} // namespace

HeldRoot::HeldRoot(Fd folderFd, FileKey folderKey, std::string namedPath, std::string realPath,
                   const ShareRules &shareRules)
    : folder(std::move(folderFd)), key(folderKey), named(std::move(namedPath)), path(std::move(realPath)),
      rules(shareRules), wholeTree(IsRootDirectory(folderKey))
{}

bool HeldRoot::IsRemoved() const
{
    struct stat facts;
    return fstat(folder.Get(), &facts) != 0 || facts.st_nlink == 0;
}

bool HeldRoot::HasItsName() const
{
    FileMetadata facts;
    return StatAt(AT_FDCWD, path.c_str(), Links::kFollow, &facts) == 0 && facts.key == key;
}

NTSTATUS RegisteredRoot::Hold(std::string_view path, Look look, std::shared_ptr<const HeldRoot> *root)
{
    ShareRules found;
    {
        const MutexLock guard(lock);
        *root = held ? held : inUse.lock();
        found = rules;
    }
    if (*root && (*root)->NamedPath() == path && (look == Look::AsHeld || (*root)->HasItsName()))
        return STATUS_SUCCESS;
    root->reset();
    Fd folder;
    std::string realPath;
    FileMetadata facts;
    NTSTATUS status = OpenDirectory(std::string(path), found.exactRoot, &folder, &realPath);
    const int error = folder ? StatDescriptor(folder.Get(), &facts) : 0;
    if (error != 0)
        status = StatusOfErrno(error);
    if (status == STATUS_SUCCESS)
        *root = std::make_shared<const HeldRoot>(std::move(folder), facts.key, std::string(path),
                                                 std::move(realPath), found);
    const bool stays = *root && IsOnRootFileSystem(facts.key);
    std::shared_ptr<const HeldRoot> released; // outside the lock
    const MutexLock guard(lock);
    if (!AreSame(rules, found)) // others have come meanwhile: it goes for this one look-up
        return status;
    inUse = *root;
    released = std::exchange(held, stays ? *root : nullptr);
    return status;
}

bool RegisteredRoot::HasExactName()
{
    const MutexLock guard(lock);
    return rules.exactRoot;
}

void RegisteredRoot::AddRules(const ShareRules &added)
{
    const MutexLock guard(lock);
    allRules.push_back(added);
    Combine();
}

bool RegisteredRoot::RemoveRules(const ShareRules &removed)
{
    const MutexLock guard(lock);
    const auto found = std::find_if(allRules.begin(), allRules.end(),
                                    [&](const ShareRules &other) { return AreSame(other, removed); });
    if (found != allRules.end())
        allRules.erase(found);
    Combine();
    return allRules.empty();
}

void RegisteredRoot::Combine()
{
    const ShareRules before = rules;
    rules = {.linksOutside = !allRules.empty()};
    for (const ShareRules &one : allRules) {
        rules.exactRoot |= one.exactRoot;
        rules.names = std::max(rules.names, one.names);
        rules.linksOutside &= one.linksOutside;
    }
    if (AreSame(before, rules) && !allRules.empty())
        return;
    held.reset();
    inUse.reset();
}

ShareRoots &ShareRoots::Instance()
{
    static auto *roots = new ShareRoots; // for shares that outlive the destructors of the process
    return *roots;
}

void ShareRoots::Add(std::u16string_view text, const ShareRules &rules)
{
    const MutexLock guard(lock);
    auto found =
        std::find_if(roots.begin(), roots.end(), [&](const auto &root) { return root->text == text; });
    if (found == roots.end()) {
        // The longest first.
        found = std::find_if(roots.begin(), roots.end(),
                             [&](const auto &root) { return root->text.size() < text.size(); });
        found = roots.insert(found, std::make_shared<RegisteredRoot>(text));
    }
    (*found)->AddRules(rules);
}

void ShareRoots::Remove(std::u16string_view text, const ShareRules &rules)
{
    const MutexLock guard(lock);
    const auto found =
        std::find_if(roots.begin(), roots.end(), [&](const auto &root) { return root->text == text; });
    if (found != roots.end() && (*found)->RemoveRules(rules))
        roots.erase(found);
}

std::shared_ptr<RegisteredRoot> ShareRoots::Find(std::u16string_view name)
{
    const MutexLock guard(lock);
    for (const auto &root : roots) {
        const std::u16string &text = root->text;
        if (name.starts_with(text) && (name.size() == text.size() || IsSeparator(name[text.size()])))
            return root;
    }
    return nullptr;
}

} // namespace fodr::ntposix

namespace fodr::nt {

ShareRoot::ShareRoot(const std::u16string &ntPath, const ShareRules &shareRules)
    : path(ntPath), rules(shareRules)
{
    ntposix::ShareRoots::Instance().Add(path, rules);
}

ShareRoot::~ShareRoot()
{
    ntposix::ShareRoots::Instance().Remove(path, rules);
}

} // namespace fodr::nt
