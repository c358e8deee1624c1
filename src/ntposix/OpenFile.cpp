#include "ntposix/OpenFile.h"

#include "ntposix/ChangeMonitor.h"
#include "ntposix/DirectoryScan.h"
#include "ntposix/FileObject.h"

namespace fodr::ntposix {

// The descriptor outlives the object's reference: while it is open the inode can't become another file.
OpenFile::~OpenFile()
{
    if (object)
        FileObjectTable::Instance().Release(object);
}

int OpenFile::Stat(FileMetadata *facts) const
{
    int error = StatDescriptor(File().fd.Get(), facts);
    ResolveId(File().RootDevice(), facts);
    if (error == 0 && stream) {
        FileMetadata bytes;
        error = StatDescriptor(fd.Get(), &bytes);
        facts->endOfFile = bytes.endOfFile;
        facts->allocation = bytes.allocation;
        facts->attributes &= ~nt::FILE_ATTRIBUTE_DIRECTORY;
    }
    return error;
}

HandleServices::HandleServices() = default;
HandleServices::~HandleServices() = default;

void HandleServices::Close()
{
    blockedCalls.Close();
    std::unique_ptr<ChangeSubscription> ended; // taken out under the lock, ended outside
    {
        const MutexLock guard(changesLock);
        ended = std::move(changes);
    }
}

} // namespace fodr::ntposix
