#include "ntposix/OpenFile.h"

#include "ntposix/FileObjectTable.h"

namespace fodr::ntposix {

// The descriptor outlives the object's reference: while it is open the inode can't become another file.
OpenFile::~OpenFile()
{
    if (object)
        FileObjectTable::Instance().Release(object);
}

int OpenFile::Stat(FileFacts *facts) const
{
    int error = StatDescriptor(File().fd.Get(), facts);
    ResolveId(File().RootDevice(), facts);
    if (error == 0 && stream) {
        FileFacts bytes;
        error = StatDescriptor(fd.Get(), &bytes);
        facts->endOfFile = bytes.endOfFile;
        facts->allocation = bytes.allocation;
        facts->attributes &= ~nt::FILE_ATTRIBUTE_DIRECTORY;
    }
    return error;
}

} // namespace fodr::ntposix
