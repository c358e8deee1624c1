#include "ntposix/ExactFolders.h"

#include "ntposix/Mutex.h"
#include "ntposix/NtName.h"
#include "platform/Nt.h"

#include <set>

namespace fodr::ntposix {

namespace {

struct Kept {
    Mutex lock;
    std::multiset<std::string> paths GUARDED_BY(lock);
};

Kept &KeptFolders()
{
    static Kept kept;
    return kept;
}

} // namespace

void KeepExact(const std::string &path)
{
    Kept &kept = KeptFolders();
    const MutexLock guard(kept.lock);
    kept.paths.insert(path);
}

void LetGo(const std::string &path)
{
    Kept &kept = KeptFolders();
    const MutexLock guard(kept.lock);
    if (const auto found = kept.paths.find(path); found != kept.paths.end())
        kept.paths.erase(found);
}

bool IsExactFolder(const std::string &path)
{
    Kept &kept = KeptFolders();
    const MutexLock guard(kept.lock);
    return kept.paths.contains(path);
}

} // namespace fodr::ntposix

namespace fodr::nt {

// What can't be parsed leads nowhere in any case.
ExactFolder::ExactFolder(const std::u16string &ntPath)
{
    ntposix::NtName name;
    if (ntposix::NtName::Parse(ntPath, &name) == STATUS_SUCCESS)
        path = name.Path();
    ntposix::KeepExact(path);
}

ExactFolder::~ExactFolder()
{
    ntposix::LetGo(path);
}

} // namespace fodr::nt
