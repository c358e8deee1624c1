#include "ntposix/FileObjectTable.h"

namespace fodr::ntposix {

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
