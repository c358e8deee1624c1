#include "ntposix/OpenFile.h"

#include "ntposix/FileObjectTable.h"

namespace fodr::ntposix {

// The descriptor outlives the object's reference: while it is open the inode can't become another file.
OpenFile::~OpenFile()
{
    if (object)
        FileObjectTable::Instance().Release(object);
}

} // namespace fodr::ntposix
