#include "ntposix/FileObject.h"

#include "ntposix/OpenFile.h"

#include <algorithm>

namespace fodr::ntposix {

using namespace nt;

namespace {

constexpr uint32_t kReads = FILE_READ_DATA | FILE_EXECUTE;
constexpr uint32_t kWrites = FILE_WRITE_DATA | FILE_APPEND_DATA;
constexpr uint32_t kTakesPart = kReads | kWrites | DELETE_ACCESS;

} // namespace

NTSTATUS FileObject::Admit(OpenFile &open, uint32_t extraAccess, uint32_t linkCount)
{
    const MutexLock guard(lock);
    manyLinks |= linkCount > 1;
    if (FindPending(open.path))
        return STATUS_DELETE_PENDING;
    if (!MayShare(open.access | extraAccess, open.share))
        return STATUS_SHARING_VIOLATION;
    everShared |= !opens.empty();
    opens.push_back(&open);
    Count(open, 1);
    return STATUS_SUCCESS;
}

bool FileObject::Close(OpenFile &open)
{
    const MutexLock guard(lock);
    Count(open, static_cast<uint32_t>(-1));
    if (open.deleteOnClose && !open.nameTaken)
        MarkName(open, true);
    bool others = false;
    for (const OpenFile *other : opens)
        others |= other != &open && IsNameOf(*other, open.path);
    if (open.deletePending && !others)
        return true;
    std::erase(opens, &open);
    return false;
}

void FileObject::Leave(OpenFile &open)
{
    const MutexLock guard(lock);
    std::erase(opens, &open);
}

void FileObject::SetDeletePending(const OpenFile &open, bool pending, uint32_t linkCount)
{
    const MutexLock guard(lock);
    manyLinks |= linkCount > 1;
    MarkName(open, pending);
}

void FileObject::DeleteIfAlone(OpenFile &open)
{
    const MutexLock guard(lock);
    if (!everShared)
        MarkName(open, true);
}

bool FileObject::IsDeletePending(const OpenFile &open)
{
    const MutexLock guard(lock);
    return open.deletePending;
}

bool FileObject::IsNamePending(const std::string &path)
{
    const MutexLock guard(lock);
    return FindPending(path);
}

bool FileObject::IsOpen()
{
    const MutexLock guard(lock);
    return !opens.empty();
}

void FileObject::NameTaken(OpenFile &open, const std::string &foundAt, uint32_t linkCount)
{
    const MutexLock guard(lock);
    manyLinks |= linkCount > 1;
    const std::string path = open.path;
    for (OpenFile *other : opens) {
        if (IsNameOf(*other, path) || IsNameOf(*other, foundAt))
            TakeName(other);
    }
    TakeName(&open);
}

void FileObject::NameTaken(const std::string &path, uint32_t linkCount)
{
    const MutexLock guard(lock);
    manyLinks |= linkCount > 1;
    for (OpenFile *open : opens) {
        if (IsNameOf(*open, path))
            TakeName(open);
    }
}

bool FileObject::HasName(const OpenFile &open)
{
    const MutexLock guard(lock);
    return !open.nameTaken;
}

void FileObject::SetDeleteOnClose(OpenFile &open, bool wanted)
{
    const MutexLock guard(lock);
    open.deleteOnClose = wanted;
}

std::string FileObject::PathOf(const OpenFile &open)
{
    const MutexLock guard(lock);
    return open.path;
}

void FileObject::NoteLinks()
{
    const MutexLock guard(lock);
    manyLinks = true;
}

void FileObject::Renamed(const OpenFile &renamed, const std::string &newPath)
{
    Renamed(PathOf(renamed), newPath);
}

void FileObject::Renamed(const std::string &oldPath, const std::string &newPath)
{
    const MutexLock guard(lock);
    for (OpenFile *open : opens) {
        if (open->path != oldPath || open->nameTaken)
            continue;
        open->path = newPath;
        open->dotName = HiddenByName(newPath.substr(newPath.rfind('/') + 1)) != 0;
    }
}

bool FileObject::FindPending(const std::string &path)
{
    if (!anyPending)
        return false;
    anyPending = false;
    for (const OpenFile *open : opens) {
        anyPending |= open->deletePending;
        if (open->deletePending && IsNameOf(*open, path))
            return true;
    }
    return false;
}

bool FileObject::IsNameOf(const OpenFile &open, const std::string &path) const
{
    return !open.nameTaken && (!manyLinks || open.path == path);
}

// Every right that is asked for must be shared by all that are open, and every right that is in use must be
// shared by the one that comes (MS-FSA 2.1.5.1.2.2).
bool FileObject::MayShare(uint32_t access, uint32_t share) const
{
    if ((access & kTakesPart) == 0)
        return true;
    if ((access & kReads && counts.sharedRead < counts.opens) ||
        (access & kWrites && counts.sharedWrite < counts.opens) ||
        (access & DELETE_ACCESS && counts.sharedDelete < counts.opens))
        return false;
    return (counts.readers == 0 || share & FILE_SHARE_READ) &&
           (counts.writers == 0 || share & FILE_SHARE_WRITE) &&
           (counts.deleters == 0 || share & FILE_SHARE_DELETE);
}

void FileObject::Count(const OpenFile &open, uint32_t step)
{
    if ((open.access & kTakesPart) == 0)
        return;
    auto count = [step](uint32_t &counter, uint32_t applies) {
        if (applies)
            counter += step;
    };
    counts.opens += step;
    count(counts.readers, open.access & kReads);
    count(counts.writers, open.access & kWrites);
    count(counts.deleters, open.access & DELETE_ACCESS);
    count(counts.sharedRead, open.share & FILE_SHARE_READ);
    count(counts.sharedWrite, open.share & FILE_SHARE_WRITE);
    count(counts.sharedDelete, open.share & FILE_SHARE_DELETE);
}

void FileObject::TakeName(OpenFile *open)
{
    open->nameTaken = true;
    open->deletePending = open->deleteOnClose = false;
}

void FileObject::MarkName(const OpenFile &open, bool pending)
{
    if (open.nameTaken)
        return;
    anyPending |= pending;
    for (OpenFile *other : opens) {
        if (IsNameOf(*other, open.path))
            other->deletePending = pending;
    }
}

FileObjectTable &FileObjectTable::Instance()
{
    static FileObjectTable table;
    return table;
}

FileObject *FileObjectTable::Acquire(FileKey key)
{
    Shard &shard = ShardOf(key);
    const MutexLock guard(shard.lock);
    std::unique_ptr<FileObject> &object = shard.objects[key];
    if (!object)
        object = std::make_unique<FileObject>(key);
    ++object->references;
    return object.get();
}

FileObject *FileObjectTable::Find(FileKey key)
{
    Shard &shard = ShardOf(key);
    const MutexLock guard(shard.lock);
    const auto found = shard.objects.find(key);
    if (found == shard.objects.end())
        return nullptr;
    ++found->second->references;
    return found->second.get();
}

void FileObjectTable::Release(FileObject *object)
{
    const FileKey key = object->key;
    Shard &shard = ShardOf(key);
    const MutexLock guard(shard.lock);
    if (--object->references == 0)
        shard.objects.erase(key);
}

} // namespace fodr::ntposix
